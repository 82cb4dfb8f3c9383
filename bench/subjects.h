/* What is measured, a part of the document each. */
#ifndef KAVPLAT_BENCH_SUBJECTS_H
#define KAVPLAT_BENCH_SUBJECTS_H

#include <cstddef>
#include <filesystem>

void process_figures();
void latency();
void walks(const std::filesystem::path &directory, size_t rounds);
void traces(const std::filesystem::path &directory, size_t rounds);
void watcher(const std::filesystem::path &directory);

#endif

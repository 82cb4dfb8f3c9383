/* Medians with their spread, as Markdown. */
#ifndef KAVPLAT_BENCH_STATISTICS_H
#define KAVPLAT_BENCH_STATISTICS_H

#include <string>
#include <vector>

/* The value below which a part of the samples lies, interpolated. */
double quantile(std::vector<double> samples, double part);
double median(const std::vector<double> &samples);

/* Round by round. */
std::vector<double> ratios(const std::vector<double> &over, const std::vector<double> &under);

/* "1.02 (0.99-1.05)": the median and the quartiles. */
std::string with_spread(const std::vector<double> &samples);

#endif

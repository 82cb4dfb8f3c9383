#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

double quantile(std::vector<double> samples, double part)
{
    if (samples.empty()) {
        throw std::runtime_error("no samples");
    }
    std::ranges::sort(samples);
    const double place = part * static_cast<double>(samples.size() - 1);
    const auto below = static_cast<size_t>(place);
    const size_t above = std::min(below + 1, samples.size() - 1);
    return std::lerp(samples[below], samples[above], place - static_cast<double>(below));
}

double median(const std::vector<double> &samples)
{
    return quantile(samples, 0.5);
}

std::vector<double> ratios(const std::vector<double> &over, const std::vector<double> &under)
{
    if (over.size() != under.size()) {
        throw std::runtime_error("samples of different rounds");
    }
    std::vector<double> out;
    for (size_t i = 0; i < over.size(); i++) {
        out.push_back(over[i] / under[i]);
    }
    return out;
}

std::string with_spread(const std::vector<double> &samples)
{
    const double middle = median(samples);
    const int digits = middle < 9.95 ? 2 : middle < 99.5 ? 1 : 0;
    char text[64];
    snprintf(text, sizeof text, "%.*f (%.*f-%.*f)", digits, middle, digits, quantile(samples, 0.25),
             digits, quantile(samples, 0.75));
    return text;
}

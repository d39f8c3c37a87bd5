/*
 * What the programs that compare with plain loops share.
 */
#ifndef BENCHMARKS_TIMING_H
#define BENCHMARKS_TIMING_H

#include <algorithm>
#include <chrono>
#include <vector>

namespace timing {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

inline double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

} // namespace timing

#endif

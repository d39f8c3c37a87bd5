/*
 * The pause before the next try at something that has failed: it doubles with each failure.
 */
#ifndef HOST_BASE_GROWING_PAUSE_H
#define HOST_BASE_GROWING_PAUSE_H

#include <algorithm>
#include <cstdint>

namespace keel {

class GrowingPause {
public:
    /* ms; the first one must not be 0. */
    constexpr GrowingPause(std::uint64_t first_ms, std::uint64_t longest_ms)
        : first_ms_(first_ms), longest_ms_(longest_ms) {}

    /* After one more failure: how long to wait. */
    std::uint64_t next_ms() { return current_ms_ = std::clamp(2 * current_ms_, first_ms_, longest_ms_); }
    /* It went well: the next failure is the first one again. */
    void reset() { current_ms_ = 0; }
    /* Whether something has failed since it went well last. */
    bool is_failing() const { return current_ms_ != 0; }

private:
    std::uint64_t first_ms_;
    std::uint64_t longest_ms_;
    std::uint64_t current_ms_ = 0;
};

} // namespace keel

#endif

#include "host/base/loop.h"

#include "host/base/trace.h"

namespace keel {

namespace {
constexpr std::uint64_t longest_delay_ms = std::uint64_t{366} * 24 * 3600 * 1000;
} // namespace

bool Loop::takes_delay(std::uint64_t milliseconds) {
    if (milliseconds <= longest_delay_ms)
        return true;
    trace(Level::Error, "loop", "a delay of %llu ms was refused: report it",
          static_cast<unsigned long long>(milliseconds));
    return false;
}

} // namespace keel

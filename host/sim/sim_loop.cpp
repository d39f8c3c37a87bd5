#include "host/sim/sim_loop.h"

#include <algorithm>
#include <stdexcept>

namespace keel {

namespace {
constexpr int max_turns = 1000000; /* at one point of virtual time */
}

Loop::TimerId SimLoop::start_timer(std::uint64_t milliseconds, Task task) {
    return takes_delay(milliseconds) ? queue_.start_timer(now_ + milliseconds, std::move(task)) : 0;
}

void SimLoop::run_until_idle() {
    const auto idle = [this] { return queue_.empty() && queue_.first_due().value_or(now_ + 1) > now_; };
    for (int turns = 0; !idle(); ++turns) {
        if (turns == max_turns)
            throw std::runtime_error("the virtual clock stands still: tasks and timers of 0 ms never end");
        queue_.run_turn(now_);
        if (look_)
            look_(idle());
    }
}

void SimLoop::advance(std::uint64_t milliseconds) {
    const std::uint64_t end = now_ + milliseconds;
    run_until_idle();
    while (queue_.first_due().value_or(end + 1) <= end) {
        now_ = std::max(now_, *queue_.first_due()); /* later than it was due, if a task has held the loop */
        run_until_idle();
    }
    now_ = std::max(now_, end);
}

} // namespace keel

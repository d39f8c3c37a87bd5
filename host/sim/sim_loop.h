/*
 * The loop's twin on a virtual clock: time passes only when advance() says so.
 */
#ifndef HOST_SIM_SIM_LOOP_H
#define HOST_SIM_SIM_LOOP_H

#include <functional>
#include <utility>

#include "host/base/task_queue.h"

namespace keel {

class SimLoop : public Loop {
public:
    void post(Task task) override { queue_.post(std::move(task)); }
    void post_last(Task task) override { queue_.post_last(std::move(task)); }
    TimerId start_timer(std::uint64_t milliseconds, Task task) override;
    void cancel_timer(TimerId id) override { queue_.cancel_timer(id); }
    std::uint64_t now_ms() const override { return now_; }
    std::uint64_t wall_clock_s() const override { return epoch_s_ + now_ / 1000; }

    /* Runs every task posted and every timer due now, until nothing is left. Throws when that does not end. */
    void run_until_idle();
    /* Sets the wall clock; nothing else moves. */
    void set_wall_clock(std::uint64_t seconds) { epoch_s_ = seconds - now_ / 1000; }
    /* Lets the time pass; timers run at their times, in order. */
    void advance(std::uint64_t milliseconds);
    /* From within a task: it holds the loop for that long, and what is due meanwhile waits. */
    void hold(std::uint64_t milliseconds) { now_ += milliseconds; }
    /* Called after every turn, for who looks on; with whether anything is left to run now. It must not start anything.
     */
    void look_after_turns(std::function<void(bool idle)> look) { look_ = std::move(look); }

private:
    std::uint64_t epoch_s_ = 1700000000; /* the wall clock at the start */
    std::uint64_t now_ = 0;
    TaskQueue queue_;
    std::function<void(bool)> look_;
};

} // namespace keel

#endif

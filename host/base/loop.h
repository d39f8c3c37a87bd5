/*
 * The event loop: everything the host does happens on it, one task at a time.
 */
#ifndef HOST_BASE_LOOP_H
#define HOST_BASE_LOOP_H

#include <cstdint>
#include <functional>

namespace keel {

/* What components need of a loop. The real one (uv_loop.h) runs on libuv, its twin (sim/sim_loop.h) on a virtual clock.
 */
class Loop {
public:
    using Task = std::function<void()>;
    using TimerId = std::uint64_t; /* of a timer never 0 */

    Loop() = default;
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;
    virtual ~Loop() = default;

    /* Runs the task on a later turn, after every task posted before it. */
    virtual void post(Task task) = 0;
    /* Runs the task on a later turn once nothing posted is left and no timer is due, or has waited for long; one such
     * task a turn, in their order. For what may hold the loop: what one brings about is done before the next. */
    virtual void post_last(Task task) = 0;
    /* Runs the task once after the delay, on a later turn, also for 0 ms. The time in which the machine is suspended
     * counts. A delay of over a year is none that anybody means, but a mistake in its computation: it is traced and
     * refused, which is told by 0. */
    virtual TimerId start_timer(std::uint64_t milliseconds, Task task) = 0;
    /* Cancels a timer that has not run; an unknown id is ignored. */
    virtual void cancel_timer(TimerId id) = 0;
    /* Since the machine's start, ms; for durations. It never goes back, whatever is done to the wall clock, and goes on
     * while the machine is suspended. */
    virtual std::uint64_t now_ms() const = 0;
    /* Seconds since the epoch; for people, and for what is stored across a restart. */
    virtual std::uint64_t wall_clock_s() const = 0;

protected:
    /* Whether start_timer() takes that delay; if not, it has been traced. */
    static bool takes_delay(std::uint64_t milliseconds);
};

} // namespace keel

#endif

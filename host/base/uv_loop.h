/*
 * The real loop, on libuv.
 */
#ifndef HOST_BASE_UV_LOOP_H
#define HOST_BASE_UV_LOOP_H

#include <deque>
#include <map>
#include <set>
#include <utility>

#include <uv.h>

#include "host/base/loop.h"

namespace keel {

class UvLoop : public Loop {
public:
    UvLoop();
    ~UvLoop() override;

    void post(Task task) override;
    void post_last(Task task) override;
    TimerId start_timer(std::uint64_t milliseconds, Task task) override;
    void cancel_timer(TimerId id) override;
    std::uint64_t now_ms() const override;
    std::uint64_t wall_clock_s() const override;

    /* For components that have sockets and children of their own. */
    uv_loop_t *handle() { return &loop_; }
    /* Runs until stop(). */
    void run();
    void stop();
    /* Runs what is posted and due until nothing is, for at most that long. */
    void settle(std::uint64_t milliseconds);

private:
    void stay_awake();
    void run_posted();
    void post_due();
    void run_timer(TimerId id);
    void arm();

    struct Timer {
        std::uint64_t due_ms;
        Task task;
    };

    uv_loop_t loop_{};
    uv_idle_t idle_{};   /* active while tasks are posted: keeps the loop from sleeping */
    uv_check_t check_{}; /* runs them, once a turn, after I/O */
    std::deque<Task> posted_;
    std::deque<Task> last_; /* those of post_last() */
    int passed_over_ = 0;   /* turns in which one of these was waiting and none was run */
    /* One descriptor for all timers, on the clock that counts a suspended machine's time, which libuv's does not. */
    int clock_;
    uv_poll_t *due_;                                      /* on it; lives until libuv has closed it */
    std::map<TimerId, Timer> timers_;                     /* those that have not run */
    std::set<std::pair<std::uint64_t, TimerId>> by_time_; /* those that are not due yet */
    TimerId last_timer_ = 0;
};

} // namespace keel

#endif

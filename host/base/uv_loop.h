/*
 * The real loop, on libuv.
 */
#ifndef HOST_BASE_UV_LOOP_H
#define HOST_BASE_UV_LOOP_H

#include <uv.h>

#include "host/base/loop.h"
#include "host/base/task_queue.h"

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
    void run_turn();
    void arm();

    uv_loop_t loop_{};
    uv_idle_t idle_{};   /* active while tasks wait: keeps the loop from sleeping */
    uv_check_t check_{}; /* runs them, once a turn, after I/O */
    TaskQueue queue_;
    /* One descriptor for all timers, on the clock that counts a suspended machine's time, which libuv's does not. */
    int clock_;
    std::uint64_t armed_ms_ = 0; /* the time that it is set to; 0 for none */
    uv_poll_t *due_;             /* on it; lives until libuv has closed it */
};

} // namespace keel

#endif

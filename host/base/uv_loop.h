/*
 * The real loop, on libuv.
 */
#ifndef HOST_BASE_UV_LOOP_H
#define HOST_BASE_UV_LOOP_H

#include <deque>
#include <map>

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
    struct Timer;

    void stay_awake();
    void run_posted();
    void run_timer(TimerId id);

    uv_loop_t loop_{};
    uv_idle_t idle_{};   /* active while tasks are posted: keeps the loop from sleeping */
    uv_check_t check_{}; /* runs them, once a turn, after I/O */
    std::deque<Task> posted_;
    std::deque<Task> last_; /* those of post_last() */
    int passed_over_ = 0;   /* turns in which one of these was waiting and none was run */
    std::map<TimerId, Timer *> timers_;
    TimerId last_timer_ = 0;
};

} // namespace keel

#endif

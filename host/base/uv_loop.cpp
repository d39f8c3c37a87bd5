#include "host/base/uv_loop.h"

#include <unistd.h>

#include <ctime>
#include <stdexcept>
#include <utility>

namespace keel {

namespace {
constexpr int max_passed_over = 64;
} // namespace

struct UvLoop::Timer {
    uv_timer_t handle;
    UvLoop *loop;
    TimerId id;
    Task task;
};

UvLoop::UvLoop() {
    if (uv_loop_init(&loop_) != 0)
        throw std::runtime_error("cannot set up the event loop");
    uv_idle_init(&loop_, &idle_);
    uv_check_init(&loop_, &check_);
    check_.data = this;
    uv_check_start(&check_, [](uv_check_t *check) { static_cast<UvLoop *>(check->data)->run_posted(); });
    uv_unref(reinterpret_cast<uv_handle_t *>(&check_));
}

UvLoop::~UvLoop() {
    while (!timers_.empty())
        UvLoop::cancel_timer(timers_.begin()->first);
    uv_close(reinterpret_cast<uv_handle_t *>(&idle_), nullptr);
    uv_close(reinterpret_cast<uv_handle_t *>(&check_), nullptr);
    /* Handles that are being closed, and children that were killed, get the time to end. */
    for (int turn = 0; turn < 1000 && uv_run(&loop_, UV_RUN_NOWAIT) != 0; ++turn)
        usleep(1000);
    uv_loop_close(&loop_);
}

void UvLoop::post(Task task) {
    posted_.push_back(std::move(task));
    stay_awake();
}

void UvLoop::post_last(Task task) {
    last_.push_back(std::move(task));
    stay_awake();
}

void UvLoop::stay_awake() {
    uv_idle_start(&idle_, [](uv_idle_t *) {});
}

/* Only what was posted before this turn: tasks that post tasks do not starve the sockets. */
void UvLoop::run_posted() {
    std::deque<Task> tasks;
    tasks.swap(posted_);
    for (Task &task : tasks) {
        task();
        task = nullptr;
    }
    if (!last_.empty() && ((tasks.empty() && posted_.empty()) || ++passed_over_ == max_passed_over)) {
        passed_over_ = 0;
        const Task task = std::move(last_.front());
        last_.pop_front();
        task();
    }
    if (posted_.empty() && last_.empty())
        uv_idle_stop(&idle_);
}

Loop::TimerId UvLoop::start_timer(std::uint64_t milliseconds, Task task) {
    auto *timer = new Timer{{}, this, ++last_timer_, std::move(task)};
    uv_timer_init(&loop_, &timer->handle);
    timer->handle.data = timer;
    uv_update_time(&loop_); /* a long handler must not shorten the delay */
    uv_timer_start(
        &timer->handle,
        [](uv_timer_t *handle) {
            const auto *due = static_cast<Timer *>(handle->data);
            due->loop->post([loop = due->loop, id = due->id] { loop->run_timer(id); });
        },
        milliseconds, 0);
    timers_[timer->id] = timer;
    return timer->id;
}

/* A due timer waits its turn among the posted tasks: one that starts itself anew with 0 ms does not starve the sockets,
 * and one that is cancelled before its turn does not run. */
void UvLoop::run_timer(TimerId id) {
    const auto found = timers_.find(id);
    if (found == timers_.end())
        return;
    const Task task = std::move(found->second->task);
    cancel_timer(id);
    task();
}

void UvLoop::cancel_timer(TimerId id) {
    const auto found = timers_.find(id);
    if (found == timers_.end())
        return;
    Timer *timer = found->second;
    timers_.erase(found);
    uv_timer_stop(&timer->handle);
    uv_close(reinterpret_cast<uv_handle_t *>(&timer->handle),
             [](uv_handle_t *handle) { delete static_cast<Timer *>(handle->data); });
}

std::uint64_t UvLoop::now_ms() const {
    return uv_hrtime() / 1000000;
}

std::uint64_t UvLoop::wall_clock_s() const {
    return static_cast<std::uint64_t>(std::time(nullptr));
}

void UvLoop::run() {
    uv_run(&loop_, UV_RUN_DEFAULT);
}

void UvLoop::stop() {
    uv_stop(&loop_);
}

void UvLoop::settle(std::uint64_t milliseconds) {
    const std::uint64_t end = now_ms() + milliseconds;
    do
        uv_run(&loop_, UV_RUN_NOWAIT);
    while (!(posted_.empty() && last_.empty()) && now_ms() < end);
}

} // namespace keel

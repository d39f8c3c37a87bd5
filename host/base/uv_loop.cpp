#include "host/base/uv_loop.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <stdexcept>
#include <utility>

namespace keel {

namespace {
constexpr int max_passed_over = 64;
} // namespace

UvLoop::UvLoop() : clock_(timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK)), due_(new uv_poll_t) {
    if (clock_ < 0 || uv_loop_init(&loop_) != 0)
        throw std::runtime_error("cannot set up the event loop");
    uv_idle_init(&loop_, &idle_);
    uv_check_init(&loop_, &check_);
    check_.data = this;
    uv_check_start(&check_, [](uv_check_t *check) { static_cast<UvLoop *>(check->data)->run_posted(); });
    uv_unref(reinterpret_cast<uv_handle_t *>(&check_));
    uv_poll_init(&loop_, due_, clock_);
    due_->data = this;
    uv_poll_start(due_, UV_READABLE, [](uv_poll_t *due, int, int) { static_cast<UvLoop *>(due->data)->post_due(); });
}

UvLoop::~UvLoop() {
    uv_close(reinterpret_cast<uv_handle_t *>(due_),
             [](uv_handle_t *closed) { delete reinterpret_cast<uv_poll_t *>(closed); });
    uv_close(reinterpret_cast<uv_handle_t *>(&idle_), nullptr);
    uv_close(reinterpret_cast<uv_handle_t *>(&check_), nullptr);
    /* Handles that are being closed, and children that were killed, get the time to end. */
    for (int turn = 0; turn < 1000 && uv_run(&loop_, UV_RUN_NOWAIT) != 0; ++turn)
        usleep(1000);
    uv_loop_close(&loop_);
    close(clock_);
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
    if (!takes_delay(milliseconds))
        return 0;
    const TimerId id = ++last_timer_;
    const std::uint64_t due_ms = now_ms() + milliseconds;
    timers_[id] = {due_ms, std::move(task)};
    by_time_.emplace(due_ms, id);
    if (by_time_.begin()->second == id)
        arm();
    return id;
}

/* For the first timer; a time that has passed is due at once. */
void UvLoop::arm() {
    itimerspec first{};
    if (!by_time_.empty()) {
        const std::uint64_t due_ms = std::max<std::uint64_t>(by_time_.begin()->first, 1); /* 0 would disarm it */
        first.it_value.tv_sec = static_cast<std::time_t>(due_ms / 1000);
        first.it_value.tv_nsec = static_cast<long>(due_ms % 1000) * 1000000;
    }
    timerfd_settime(clock_, TFD_TIMER_ABSTIME, &first, nullptr);
}

/* Due timers wait their turn among the posted tasks: one that starts itself anew with 0 ms does not starve the sockets,
 * and one that is cancelled before its turn does not run. */
void UvLoop::post_due() {
    std::uint64_t times = 0;
    [[maybe_unused]] const ssize_t size = read(clock_, &times, sizeof times);
    const std::uint64_t now = now_ms();
    while (!by_time_.empty() && by_time_.begin()->first <= now) {
        post([this, id = by_time_.begin()->second] { run_timer(id); });
        by_time_.erase(by_time_.begin());
    }
    arm();
}

void UvLoop::run_timer(TimerId id) {
    const auto found = timers_.find(id);
    if (found == timers_.end())
        return;
    const Task task = std::move(found->second.task);
    timers_.erase(found);
    task();
}

void UvLoop::cancel_timer(TimerId id) {
    const auto found = timers_.find(id);
    if (found == timers_.end())
        return;
    by_time_.erase({found->second.due_ms, id}); /* the clock may run out for it: then nothing is due */
    timers_.erase(found);
}

std::uint64_t UvLoop::now_ms() const {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
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

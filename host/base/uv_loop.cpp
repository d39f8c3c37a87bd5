#include "host/base/uv_loop.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <ctime>
#include <stdexcept>
#include <utility>

namespace keel {

UvLoop::UvLoop() : clock_(timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK)), due_(new uv_poll_t) {
    if (clock_ < 0 || uv_loop_init(&loop_) != 0)
        throw std::runtime_error("cannot set up the event loop");
    uv_idle_init(&loop_, &idle_);
    uv_check_init(&loop_, &check_);
    check_.data = this;
    uv_check_start(&check_, [](uv_check_t *check) { static_cast<UvLoop *>(check->data)->run_turn(); });
    uv_unref(reinterpret_cast<uv_handle_t *>(&check_));
    uv_poll_init(&loop_, due_, clock_);
    due_->data = this;
    uv_poll_start(due_, UV_READABLE, [](uv_poll_t *due, int, int) { /* wakes the loop; the turn finds what is due */
                                                                    auto *self = static_cast<UvLoop *>(due->data);
                                                                    std::uint64_t times = 0;
                                                                    if (read(self->clock_, &times, sizeof times) > 0)
                                                                        self->armed_ms_ = 0;
    });
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
    queue_.post(std::move(task));
    stay_awake();
}

void UvLoop::post_last(Task task) {
    queue_.post_last(std::move(task));
    stay_awake();
}

void UvLoop::stay_awake() {
    uv_idle_start(&idle_, [](uv_idle_t *) {});
}

void UvLoop::run_turn() {
    queue_.run_turn(now_ms());
    if (queue_.empty())
        uv_idle_stop(&idle_);
    arm();
}

Loop::TimerId UvLoop::start_timer(std::uint64_t milliseconds, Task task) {
    if (!takes_delay(milliseconds))
        return 0;
    const TimerId id = queue_.start_timer(now_ms() + milliseconds, std::move(task));
    arm();
    return id;
}

void UvLoop::cancel_timer(TimerId id) {
    queue_.cancel_timer(id); /* the clock may run out for it: then nothing is due */
}

/* For the first timer; a time that has passed is due at once. */
void UvLoop::arm() {
    const std::uint64_t due_ms = queue_.first_due().value_or(0);
    if (due_ms == armed_ms_)
        return;
    armed_ms_ = due_ms;
    itimerspec first{};
    first.it_value.tv_sec = static_cast<std::time_t>(due_ms / 1000);
    first.it_value.tv_nsec = static_cast<long>(due_ms % 1000) * 1000000; /* all 0: it does not run */
    timerfd_settime(clock_, TFD_TIMER_ABSTIME, &first, nullptr);
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
    while (!queue_.empty() && now_ms() < end);
}

} // namespace keel

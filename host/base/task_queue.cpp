#include "host/base/task_queue.h"

namespace keel {

namespace {
constexpr int max_passed_over = 64;
} // namespace

Loop::TimerId TaskQueue::start_timer(std::uint64_t due_ms, Loop::Task task) {
    const Loop::TimerId id = ++last_timer_;
    timers_[id] = {due_ms, std::move(task)};
    by_time_.emplace(due_ms, id);
    return id;
}

void TaskQueue::cancel_timer(Loop::TimerId id) {
    const auto found = timers_.find(id);
    if (found == timers_.end())
        return;
    by_time_.erase({found->second.due_ms, id});
    timers_.erase(found);
}

std::optional<std::uint64_t> TaskQueue::first_due() const {
    return by_time_.empty() ? std::nullopt : std::optional(by_time_.begin()->first);
}

/* One that was cancelled between its time and its turn does not run. */
void TaskQueue::run_timer(Loop::TimerId id) {
    const auto found = timers_.find(id);
    if (found == timers_.end())
        return;
    const Loop::Task task = std::move(found->second.task);
    timers_.erase(found);
    task();
}

void TaskQueue::run_turn(std::uint64_t now_ms) {
    for (; !by_time_.empty() && by_time_.begin()->first <= now_ms; by_time_.erase(by_time_.begin()))
        post([this, id = by_time_.begin()->second] { run_timer(id); });
    std::deque<Loop::Task> tasks;
    tasks.swap(posted_);
    for (Loop::Task &task : tasks) {
        task();
        task = nullptr;
    }
    if (last_.empty() || ((!tasks.empty() || !posted_.empty()) && ++passed_over_ < max_passed_over))
        return;
    passed_over_ = 0;
    const Loop::Task task = std::move(last_.front());
    last_.pop_front();
    task();
}

} // namespace keel

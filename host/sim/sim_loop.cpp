#include "host/sim/sim_loop.h"

#include <stdexcept>

namespace keel {

namespace {
constexpr int max_tasks = 1000000; /* at one point of virtual time */
}

void SimLoop::post(Task task) {
    posted_.push_back(std::move(task));
}

void SimLoop::post_last(Task task) {
    last_.push_back(std::move(task));
}

Loop::TimerId SimLoop::start_timer(std::uint64_t milliseconds, Task task) {
    if (!takes_delay(milliseconds))
        return 0;
    const TimerId id = ++last_timer_;
    timers_[{now_ + milliseconds, id}] = std::move(task);
    due_[id] = now_ + milliseconds;
    return id;
}

void SimLoop::cancel_timer(TimerId id) {
    const auto found = due_.find(id);
    if (found == due_.end())
        return;
    timers_.erase({found->second, id});
    due_.erase(found);
}

bool SimLoop::run_one() {
    Task task;
    if (!posted_.empty()) {
        task = std::move(posted_.front());
        posted_.pop_front();
    } else if (!timers_.empty() && timers_.begin()->first.first <= now_) {
        const auto first = timers_.begin();
        task = std::move(first->second);
        due_.erase(first->first.second);
        timers_.erase(first);
    } else if (!last_.empty()) {
        task = std::move(last_.front());
        last_.pop_front();
    } else {
        return false;
    }
    task();
    return true;
}

void SimLoop::run_until_idle() {
    for (int count = 0; run_one(); ++count)
        if (count == max_tasks)
            throw std::runtime_error("the virtual clock stands still: tasks and timers of 0 ms never end");
}

void SimLoop::advance(std::uint64_t milliseconds) {
    const std::uint64_t end = now_ + milliseconds;
    run_until_idle();
    while (!timers_.empty() && timers_.begin()->first.first <= end) {
        now_ = timers_.begin()->first.first;
        run_until_idle();
    }
    now_ = end;
}

} // namespace keel

/*
 * What waits to be run on a loop: the order that the real loop and its twin share.
 */
#ifndef HOST_BASE_TASK_QUEUE_H
#define HOST_BASE_TASK_QUEUE_H

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "host/base/loop.h"

namespace keel {

class TaskQueue {
public:
    void post(Loop::Task task) { posted_.push_back(std::move(task)); }
    void post_last(Loop::Task task) { last_.push_back(std::move(task)); }
    Loop::TimerId start_timer(std::uint64_t due_ms, Loop::Task task);
    void cancel_timer(Loop::TimerId id);

    /* Whether something waits for the next turn, timers aside. */
    bool empty() const { return posted_.empty() && last_.empty(); }
    /* When the first timer is due; nothing when there is none that has not been. */
    std::optional<std::uint64_t> first_due() const;

    /* One turn: due timers take their place behind the tasks posted so far, and these run; what they post waits for the
     * next turn, so that tasks that post tasks, and timers that start anew with 0 ms, do not starve the sockets. Of the
     * last ones one runs when nothing else did, or when it has been passed over for long. */
    void run_turn(std::uint64_t now_ms);

private:
    struct Timer {
        std::uint64_t due_ms;
        Loop::Task task;
    };

    void run_timer(Loop::TimerId id);

    std::deque<Loop::Task> posted_;
    std::deque<Loop::Task> last_;
    int passed_over_ = 0;                   /* turns in which one of these was waiting and none was run */
    std::map<Loop::TimerId, Timer> timers_; /* those that have not run */
    std::set<std::pair<std::uint64_t, Loop::TimerId>> by_time_; /* those that have not been due */
    Loop::TimerId last_timer_ = 0;
};

} // namespace keel

#endif

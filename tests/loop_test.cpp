/*
 * The order of what waits on a loop, which the real one and its twin share; and the real one's clock.
 */
#include "host/base/task_queue.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "host/base/trace.h"
#include "host/base/uv_loop.h"
#include "host/sim/sim_loop.h"

namespace keel {

TEST(TaskQueue, DueTimersTakeTurnsWithTasksAndTheLastOnesWait) {
    TaskQueue queue;
    std::vector<std::string> ran;
    const auto note = [&](const char *name) { return [&ran, name] { ran.emplace_back(name); }; };
    queue.start_timer(5, note("timer 5"));
    queue.start_timer(5, note("timer 5 too"));
    const Loop::TimerId cancelled = queue.start_timer(4, note("cancelled"));
    queue.post_last([&] {
        ran.emplace_back("last");
        queue.post(note("of the last"));
    });
    queue.post_last(note("last too"));
    queue.post([&] {
        ran.emplace_back("task");
        queue.post(note("of the task"));
        queue.cancel_timer(cancelled); /* it is due in this very turn */
    });
    EXPECT_EQ(queue.first_due(), 4U);
    for (int turn = 0; turn < 6; ++turn)
        queue.run_turn(5);
    EXPECT_EQ(ran, (std::vector<std::string>{"task", "timer 5", "timer 5 too", "of the task", "last", "of the last",
                                             "last too"}));
    EXPECT_TRUE(queue.empty());
}

TEST(TaskQueue, NothingThatKeepsPostingStarvesTheLastOnes) {
    TaskQueue queue;
    bool ran = false;
    const std::function<void()> again = [&] { queue.post(again); };
    queue.post(again);
    queue.post_last([&] { ran = true; });
    for (int turn = 0; turn < 100; ++turn)
        queue.run_turn(0);
    EXPECT_TRUE(ran);
}

TEST(Loops, ADelayThatNobodyMeansIsRefused) {
    TraceLog::instance().set_print(false);
    TraceLog::instance().clear();
    SimLoop virtual_one;
    UvLoop real_one;
    for (Loop *loop : {static_cast<Loop *>(&virtual_one), static_cast<Loop *>(&real_one)}) {
        const std::uint64_t wrapped = loop->now_ms() - (loop->now_ms() + 1);
        EXPECT_EQ(loop->start_timer(wrapped, [] {}), 0U);
        EXPECT_NE(loop->start_timer(std::uint64_t{48} * 3600 * 1000, [] {}), 0U);
    }
    EXPECT_EQ(TraceLog::instance().recent().size(), 2U);
}

TEST(Loops, TheRealOnesTimersRunAtTheirTimesWhateverComesBetween) {
    UvLoop loop;
    std::vector<int> ran;
    const std::uint64_t start = loop.now_ms();
    for (const int delay : {30, 10, 20})
        loop.start_timer(static_cast<std::uint64_t>(delay), [&ran, delay] { ran.push_back(delay); });
    loop.start_timer(0, [&] { /* due at once, again and again, at the time that the clock was set to last */
                              loop.start_timer(0, [&] { ran.push_back(0); });
    });
    loop.cancel_timer(loop.start_timer(5, [&] { ran.push_back(5); }));
    loop.start_timer(40, [&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(ran, (std::vector<int>{0, 10, 20, 30}));
    EXPECT_GE(loop.now_ms() - start, 39U);
}

} // namespace keel

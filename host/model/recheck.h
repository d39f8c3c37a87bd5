/*
 * Doing a thing once on a later turn, however often it was asked for; and looking at a part of the model again so,
 * after it has changed.
 */
#ifndef HOST_MODEL_RECHECK_H
#define HOST_MODEL_RECHECK_H

#include <functional>
#include <memory>
#include <string_view>

#include "host/base/loop.h"
#include "host/model/model.h"

namespace keel {

class OnceATurn {
public:
    enum class Turn { Next, Last }; /* Loop::post() or Loop::post_last() */

    /* action may destroy this. The loop must outlive it. */
    OnceATurn(Loop &loop, std::function<void()> action, Turn turn = Turn::Next);

    /* Has the action run on a later turn; asked for again before that, it runs once. Not any more when this is gone. */
    void schedule();

private:
    struct State {
        std::function<void()> action;
        bool scheduled = false;
    };

    Loop &loop_;
    Turn turn_;
    std::shared_ptr<State> state_; /* a task that is still posted when this is gone finds none */
};

class Recheck {
public:
    /* Calls check on a later turn than every change at or below the path that concerns it, until it is destroyed. check
     * may destroy it. Loop and model must outlive it. */
    Recheck(Loop &loop, Model &model, std::string_view path, std::function<void()> check, Concern concern = {});
    Recheck(const Recheck &) = delete;
    Recheck &operator=(const Recheck &) = delete;
    ~Recheck();

    /* The same without a change. */
    void schedule() { check_.schedule(); }

private:
    Model &model_;
    OnceATurn check_;
    Model::WatchId watch_;
};

} // namespace keel

#endif

/*
 * Looking at a part of the model again after it has changed: once a turn, however many writes there were.
 */
#ifndef HOST_CORE_RECHECK_H
#define HOST_CORE_RECHECK_H

#include <functional>
#include <memory>
#include <string_view>

#include "host/core/loop.h"
#include "host/core/model.h"

namespace keel {

class Recheck {
public:
    /* Calls check on a later turn than every change at or below the path, until it is destroyed. check may destroy it.
     * Loop and model must outlive it. */
    Recheck(Loop &loop, Model &model, std::string_view path, std::function<void()> check);
    Recheck(const Recheck &) = delete;
    Recheck &operator=(const Recheck &) = delete;
    ~Recheck();

    /* The same without a change. */
    void schedule();

private:
    struct State {
        std::function<void()> check;
        bool scheduled = false;
    };

    Loop &loop_;
    Model &model_;
    std::shared_ptr<State> state_; /* a task that is still posted when this is gone finds none */
    Model::WatchId watch_;
};

} // namespace keel

#endif

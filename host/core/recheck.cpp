#include "host/core/recheck.h"

#include <utility>

namespace keel {

Recheck::Recheck(Loop &loop, Model &model, std::string_view path, std::function<void()> check)
    : loop_(loop), model_(model), state_(std::make_shared<State>(State{std::move(check), false})),
      watch_(model.watch(path, [this](const Event &) { schedule(); })) {}

Recheck::~Recheck() {
    model_.unwatch(watch_);
}

void Recheck::schedule() {
    if (state_->scheduled)
        return;
    state_->scheduled = true;
    loop_.post([weak = std::weak_ptr(state_)] {
        const auto state = weak.lock();
        if (!state)
            return;
        state->scheduled = false;
        state->check();
    });
}

} // namespace keel

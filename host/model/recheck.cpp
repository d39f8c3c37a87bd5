#include "host/model/recheck.h"

#include <utility>

namespace keel {

OnceATurn::OnceATurn(Loop &loop, std::function<void()> action)
    : loop_(loop), state_(std::make_shared<State>(State{std::move(action), false})) {}

void OnceATurn::schedule() {
    if (state_->scheduled)
        return;
    state_->scheduled = true;
    loop_.post([weak = std::weak_ptr(state_)] {
        const auto state = weak.lock();
        if (!state)
            return;
        state->scheduled = false;
        state->action();
    });
}

Recheck::Recheck(Loop &loop, Model &model, std::string_view path, std::function<void()> check)
    : model_(model), check_(loop, std::move(check)), watch_(model.watch(path, [this](const Event &) { schedule(); })) {}

Recheck::~Recheck() {
    model_.unwatch(watch_);
}

} // namespace keel

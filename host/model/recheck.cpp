#include "host/model/recheck.h"

#include <utility>

namespace keel {

OnceATurn::OnceATurn(Loop &loop, std::function<void()> action, Turn turn)
    : loop_(loop), turn_(turn), state_(std::make_shared<State>(State{std::move(action), false})) {}

void OnceATurn::schedule() {
    if (state_->scheduled)
        return;
    state_->scheduled = true;
    Loop::Task task = [weak = std::weak_ptr(state_)] {
        const auto state = weak.lock();
        if (!state)
            return;
        state->scheduled = false;
        state->action();
    };
    if (turn_ == Turn::Next)
        loop_.post(std::move(task));
    else
        loop_.post_last(std::move(task));
}

Recheck::Recheck(Loop &loop, Model &model, std::string_view path, std::function<void()> check, Concern concern)
    : model_(model), check_(loop, std::move(check)),
      watch_(model.watch(
          path, [this](const Event &) { schedule(); }, std::move(concern))) {}

Recheck::~Recheck() {
    model_.unwatch(watch_);
}

} // namespace keel

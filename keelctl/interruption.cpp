#include "keelctl/interruption.h"

namespace keelctl {

namespace {

volatile std::sig_atomic_t interrupted = 0;

} // namespace

Interruption::Interruption() {
    interrupted = 0;
    struct sigaction act {};
    act.sa_handler = [](int) { interrupted = 1; };
    for (std::size_t i = 0; i < signals_.size(); ++i)
        sigaction(signals_[i], &act, &before_[i]);
}

Interruption::~Interruption() {
    for (std::size_t i = 0; i < signals_.size(); ++i)
        sigaction(signals_[i], &before_[i], nullptr);
}

bool Interruption::wanted() {
    return interrupted != 0;
}

} // namespace keelctl

/*
 * Ctrl-C as a wish: what runs until then ends in good order.
 */
#ifndef KEELCTL_INTERRUPTION_H
#define KEELCTL_INTERRUPTION_H

#include <array>
#include <csignal>

namespace keelctl {

/* While there is one, SIGINT, SIGTERM and SIGHUP are noted, and waits are cut short by them; afterwards they do what
 * they did before. */
class Interruption {
public:
    Interruption();
    Interruption(const Interruption &) = delete;
    Interruption &operator=(const Interruption &) = delete;
    ~Interruption();

    static bool wanted();

private:
    static constexpr std::array signals_ = {SIGINT, SIGTERM, SIGHUP};
    std::array<struct sigaction, 3> before_{};
};

} // namespace keelctl

#endif

#include "host/linux/host_lock.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fstream>

namespace keel {

namespace {

constexpr int max_tries = 500; /* 10 s in all */
constexpr useconds_t pause_us = 20000;
constexpr char lock_name[] = "\0keelhost"; /* abstract: begins with a zero */

std::string program_of(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    return std::getline(file, name) ? " (" + name + ")" : "";
}

/* The process that made the lock; 0 when it is not known, or not seen from here. */
pid_t holder(const sockaddr_un &address, socklen_t size) {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ucred peer{};
    socklen_t peer_size = sizeof peer;
    const bool known = probe >= 0 && connect(probe, reinterpret_cast<const sockaddr *>(&address), size) == 0 &&
                       getsockopt(probe, SOL_SOCKET, SO_PEERCRED, &peer, &peer_size) == 0;
    if (probe >= 0)
        close(probe);
    return known ? peer.pid : 0;
}

bool is_gone(pid_t pid) {
    return pid > 0 && kill(pid, 0) != 0 && errno == ESRCH;
}

std::string in_words(pid_t holder) {
    if (holder <= 0)
        return "a process that is not seen from here";
    const std::string number = std::to_string(holder);
    return is_gone(holder) ? "a command of process " + number + ", which was killed, hangs"
                           : "process " + number + program_of(holder);
}

/* Takes the lock for the socket; false with the reason in errno, and who has it. What a host that was killed has left
 * running is waited for. It is asked for once, since nobody accepts and each question stays in the queue. */
bool take(int socket, const sockaddr_un &address, socklen_t size, pid_t *other) {
    for (int tries = 0; bind(socket, reinterpret_cast<const sockaddr *>(&address), size) != 0; ++tries) {
        if (errno != EADDRINUSE)
            return false;
        if (*other == 0 && tries <= 1) /* none perhaps because it ended in between */
            *other = holder(address, size);
        if (tries == max_tries || (tries > 0 && !is_gone(*other))) {
            errno = EADDRINUSE;
            return false;
        }
        usleep(pause_us);
    }
    return listen(socket, SOMAXCONN) == 0; /* so that its holder can be asked for */
}

} // namespace

/* The plug-in's shell commands inherit it, so not closed by an exec; what Program starts does not. */
HostLock::HostLock() : socket_(socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, lock_name, sizeof lock_name - 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sizeof lock_name - 1);
    pid_t other = 0;
    if (socket_ < 0 || !take(socket_, address, size, &other))
        refusal_ = errno == EADDRINUSE ? "another one serves this network: " + in_words(other)
                                       : std::string("the lock cannot be had: ") + std::strerror(errno);
}

HostLock::~HostLock() {
    if (socket_ >= 0)
        close(socket_);
}

} // namespace keel

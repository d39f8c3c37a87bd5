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

constexpr int max_tries = 50;
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

std::string in_words(pid_t holder) {
    return holder > 0 ? "process " + std::to_string(holder) + program_of(holder)
                      : "a process that is not seen from here";
}

/* Takes the lock for the socket; false with the reason in errno. The lock of a host that was killed may be held for
 * another moment, by a copy of it that was about to become a program. */
bool take(int socket, const sockaddr_un &address, socklen_t size) {
    for (int tries = 0; bind(socket, reinterpret_cast<const sockaddr *>(&address), size) != 0; ++tries) {
        if (errno != EADDRINUSE)
            return false;
        const pid_t pid = holder(address, size);
        const bool gone = pid > 0 && kill(pid, 0) != 0 && errno == ESRCH;
        const bool freed = pid == 0 && tries == 0; /* perhaps between the two calls */
        errno = EADDRINUSE;
        if (tries == max_tries || (!gone && !freed))
            return false;
        usleep(pause_us);
    }
    return listen(socket, 1) == 0; /* so that its holder can be asked for */
}

} // namespace

HostLock::HostLock() : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, lock_name, sizeof lock_name - 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sizeof lock_name - 1);
    if (socket_ < 0 || !take(socket_, address, size))
        refusal_ = errno == EADDRINUSE ? "another one serves this network: " + in_words(holder(address, size))
                                       : std::string("the lock cannot be had: ") + std::strerror(errno);
}

HostLock::~HostLock() {
    if (socket_ >= 0)
        close(socket_);
}

} // namespace keel

#include "host/linux/host_lock.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>

namespace keel {

namespace {

constexpr char lock_name[] = "\0keelhost"; /* abstract: begins with a zero */

std::string program_of(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    return std::getline(file, name) ? " (" + name + ")" : "";
}

std::string holder(const sockaddr_un &address, socklen_t size) {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ucred peer{};
    socklen_t peer_size = sizeof peer;
    const bool known = probe >= 0 && connect(probe, reinterpret_cast<const sockaddr *>(&address), size) == 0 &&
                       getsockopt(probe, SOL_SOCKET, SO_PEERCRED, &peer, &peer_size) == 0 && peer.pid > 0;
    if (probe >= 0)
        close(probe);
    return known ? "process " + std::to_string(peer.pid) + program_of(peer.pid)
                 : "a process that is not seen from here";
}

} // namespace

HostLock::HostLock() : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, lock_name, sizeof lock_name - 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sizeof lock_name - 1);
    if (socket_ < 0 || bind(socket_, reinterpret_cast<sockaddr *>(&address), size) != 0)
        refusal_ = errno == EADDRINUSE ? "another one serves this network: " + holder(address, size)
                                       : std::string("the lock cannot be had: ") + std::strerror(errno);
    else if (listen(socket_, 1) != 0) /* so that its holder can be asked for */
        refusal_ = std::string("the lock cannot be had: ") + std::strerror(errno);
}

HostLock::~HostLock() {
    if (socket_ >= 0)
        close(socket_);
}

} // namespace keel

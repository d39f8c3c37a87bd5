#include "host/linux/service_manager.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "host/base/trace.h"

namespace keel {

namespace {

std::string take_variable(const char *name) {
    const char *value = std::getenv(name);
    std::string text = value ? value : "";
    unsetenv(name);
    return text;
}

} // namespace

ServiceManager::ServiceManager(Loop &loop) : loop_(loop) {
    const std::string path = take_variable("NOTIFY_SOCKET");
    const std::string watched = take_variable("WATCHDOG_USEC");
    const std::string process = take_variable("WATCHDOG_PID");
    if (path.size() < 2 || path.size() >= sizeof address_.sun_path)
        return;
    address_.sun_family = AF_UNIX;
    path.copy(address_.sun_path, path.size());
    if (path.front() == '@') /* an abstract name begins with a zero */
        address_.sun_path[0] = '\0';
    address_size_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const std::uint64_t every_us = std::strtoull(watched.c_str(), nullptr, 10);
    if (every_us == 0 || (!process.empty() && process != std::to_string(getpid())))
        return;
    every_ms_ = std::max<std::uint64_t>(1, every_us / 1000 / 2);
    turn();
}

ServiceManager::~ServiceManager() {
    loop_.cancel_timer(timer_);
    if (socket_ >= 0)
        close(socket_);
}

void ServiceManager::turn() {
    tell("WATCHDOG=1");
    timer_ = loop_.start_timer(every_ms_, [this] { turn(); });
}

void ServiceManager::ready() {
    ready_ = true;
    tell("READY=1");
}

void ServiceManager::reloaded() {
    if (ready_)
        tell("READY=1");
}

/* The time tells the manager which READY belongs to it. */
void ServiceManager::reloading() {
    if (!ready_)
        return;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    tell("RELOADING=1\nMONOTONIC_USEC=" +
         std::to_string(std::int64_t{now.tv_sec} * 1000000 + std::int64_t{now.tv_nsec} / 1000));
}

void ServiceManager::tell(const std::string &what) {
    if (address_size_ == 0)
        return;
    const auto sent = sendto(socket_, what.data(), what.size(), MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr *>(&address_), address_size_);
    if (sent < 0 && !failed_)
        trace(Level::Warning, "host", "the service manager cannot be told %s: %s", what.c_str(), std::strerror(errno));
    failed_ = sent < 0;
}

} // namespace keel

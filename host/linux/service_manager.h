/*
 * What the host tells the service manager that has started it: that it is ready, reloads, ends, and that its loop
 * turns.
 */
#ifndef HOST_LINUX_SERVICE_MANAGER_H
#define HOST_LINUX_SERVICE_MANAGER_H

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "host/base/loop.h"

namespace keel {

/* Speaks over the datagram socket that NOTIFY_SOCKET names; without one, each of these does nothing. Where the manager
 * wants to hear from the loop (WATCHDOG_USEC), a timer of the loop tells it twice in that time: a loop that does not
 * turn is silent. What cannot be sent is traced, once. */
class ServiceManager {
public:
    /* Takes the variables out of the environment: they are for this process, and for none that it starts. */
    explicit ServiceManager(Loop &loop);
    ServiceManager(const ServiceManager &) = delete;
    ServiceManager &operator=(const ServiceManager &) = delete;
    ~ServiceManager();

    /* What the manager shows a person. */
    void status(const std::string &words) { tell("STATUS=" + words); }
    void ready();
    /* Before and after; of a host that is not ready yet neither is told. */
    void reloading();
    void reloaded();
    void stopping() { tell("STOPPING=1"); }

private:
    void tell(const std::string &what);
    void turn();

    Loop &loop_;
    int socket_ = -1;
    sockaddr_un address_{};
    socklen_t address_size_ = 0;
    bool ready_ = false;
    bool failed_ = false;
    std::uint64_t every_ms_ = 0;
    Loop::TimerId timer_ = 0;
};

} // namespace keel

#endif

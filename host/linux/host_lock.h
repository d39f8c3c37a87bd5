/*
 * One host at a time: chains, routes and ports are the network namespace's, so the lock is, too.
 */
#ifndef HOST_LINUX_HOST_LOCK_H
#define HOST_LINUX_HOST_LOCK_H

#include <string>

namespace keel {

/* Held from its making until it goes, or the process dies. It is a Unix socket with an abstract name: the kernel keeps
 * such names for each network namespace, and nothing of it is left on a disk. The plug-in's shell commands hold it,
 * too: one that runs on after the host was killed would else change the rules under the next one's hands. */
class HostLock {
public:
    /* Where the host that had it is gone, waits for up to 10 s. */
    HostLock();
    HostLock(const HostLock &) = delete;
    HostLock &operator=(const HostLock &) = delete;
    ~HostLock();

    /* Empty when the lock is held by this; else why not, naming the process that has it. */
    const std::string &refusal() const { return refusal_; }

private:
    int socket_;
    std::string refusal_;
};

} // namespace keel

#endif

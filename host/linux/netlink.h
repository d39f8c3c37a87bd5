/*
 * The kernel's links, addresses, routes and neighbours, as plain records; the one place that knows netlink.
 */
#ifndef HOST_LINUX_NETLINK_H
#define HOST_LINUX_NETLINK_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/base/uv_loop.h"

struct nl_sock;

namespace keel {

struct KernelLink {
    int index = 0;
    std::string name;
    bool up = false; /* administratively up and with carrier */
};

struct KernelAddress {
    int link = 0;
    std::string address; /* dotted */
    int prefix = 0;
    bool own = false; /* made by this host, in this run or an earlier one */
    bool operator==(const KernelAddress &) const = default;
};

struct KernelRoute { /* of our own protocol number alone */
    int link = 0;
    std::string destination; /* dotted */
    int prefix = 0;
    std::string gateway; /* dotted */
    bool operator==(const KernelRoute &) const = default;
};

struct KernelNeighbour {
    int link = 0;        /* the bridge's port for a forwarding entry */
    std::string mac;     /* upper case */
    std::string address; /* dotted; empty for a forwarding entry */
    bool valid = false;  /* reachable, or not known to be gone */
};

/* The MAC address of a link, lower case, or "". */
std::string link_address(const std::string &name);

class Netlink {
public:
    /* Throws std::runtime_error when the kernel cannot be talked to. Changed is called on a later turn after anything
     * of the below has changed in the kernel; several changes may be one call. */
    Netlink(UvLoop &loop, std::function<void()> changed);
    Netlink(const Netlink &) = delete;
    Netlink &operator=(const Netlink &) = delete;
    ~Netlink();

    std::vector<KernelLink> links();
    std::vector<KernelAddress> addresses();
    std::vector<KernelRoute> routes();
    std::vector<KernelNeighbour> neighbours();
    std::vector<KernelNeighbour> bridge_forwarding();

    /* Changes. Empty when done, else the kernel's reason. What is there already, or gone already, counts as done. */
    std::string add_address(const KernelLink &link, const std::string &address, int prefix);
    std::string delete_address(const KernelAddress &address);
    std::string add_route(const KernelRoute &route);
    std::string delete_route(const KernelRoute &route);
    /* Has the kernel ask a neighbour whether it is still there. */
    void probe(const KernelNeighbour &neighbour);

private:
    struct Poll; /* lives until libuv has closed it */

    nl_sock *requests_ = nullptr;
    nl_sock *events_ = nullptr;
    std::function<void()> changed_;
    Poll *poll_ = nullptr;
};

} // namespace keel

#endif

/*
 * The kernel's links, addresses, routes and neighbours, as plain records; the one place that knows netlink.
 */
#ifndef HOST_LINUX_NETLINK_H
#define HOST_LINUX_NETLINK_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

struct nl_msg;
struct nl_sock;
struct nlmsghdr;

namespace keel {

struct KernelLink {
    int index = 0;
    std::string name;
    bool enabled = false; /* administratively up */
    bool up = false;      /* the same, and with carrier */
    bool bridge = false;
    bool operator==(const KernelLink &) const = default;
};

struct KernelAddress {
    int link = 0;
    std::string address; /* dotted */
    int prefix = 0;
    bool own = false; /* made by this host, in this run or an earlier one */
    bool operator==(const KernelAddress &) const = default;
};

struct KernelRoute { /* of the main table */
    int link = 0;
    std::string destination; /* dotted */
    int prefix = 0;
    std::string gateway; /* dotted; "0.0.0.0" for none: on the link itself */
    bool operator==(const KernelRoute &) const = default;
};

struct KernelNeighbour {
    int link = 0;
    std::string address; /* dotted */
    std::string mac;     /* upper case; "" while it is not known, or not any more */
    bool valid = false;  /* reachable, or not known to be gone */
    bool fixed = false;  /* by an administrator: needs no asking */
    bool operator==(const KernelNeighbour &) const = default;
};

/* Behind which port a bridge has seen a device. */
struct KernelForwarding {
    int bridge = 0;
    int port = 0;
    std::string mac; /* upper case */
    int vlan = 0;
    bool operator==(const KernelForwarding &) const = default;
};

/* A multicast group that devices behind a port of a bridge have joined. */
struct KernelMembership {
    int port = 0;
    std::string group; /* dotted */
};

/* One message of the kernel: what there is, or is not any more. */
struct KernelMessage {
    bool gone = false;
    bool others = false;   /* a route that is not of our own protocol number */
    bool replaces = false; /* a route that has taken the place of any other to that destination */
    std::variant<KernelLink, KernelAddress, KernelRoute, KernelNeighbour, KernelForwarding> record;
};

/* Nothing for a message of anything else. The header must stand before the whole message. */
std::optional<KernelMessage> read_kernel_message(const nlmsghdr *header);

/* Those of them that there are in what a socket has given at once; data is aligned as an nlmsghdr. */
void for_each_message(const std::uint8_t *data, std::size_t size,
                      const std::function<void(const KernelMessage &)> &take);

/* The MAC address of a link, lower case, or "". */
std::string link_address(const std::string &name);

enum class KernelTable { Links, Addresses, Routes, Neighbours, Forwarding };

/* Questions to the kernel and changes, each carried out before the call returns. */
class Netlink {
public:
    /* Throws std::runtime_error when the kernel cannot be talked to. */
    Netlink();
    Netlink(const Netlink &) = delete;
    Netlink &operator=(const Netlink &) = delete;
    ~Netlink();

    /* A whole table; of the routes, those of our own protocol number. Nothing and *error when the kernel does not give
     * it, also when it changes too fast to be read. */
    std::optional<std::vector<KernelMessage>> dump(KernelTable table, std::string *error);

    /* The groups joined behind the ports of a bridge; empty also when the kernel does not tell. */
    std::vector<KernelMembership> memberships(int bridge);

    /* Changes. Empty when done, else the kernel's reason. What is there already, or gone already, counts as done, but a
     * route that is there already does not. */
    std::string add_address(const KernelLink &link, const std::string &address, int prefix);
    std::string delete_address(const KernelAddress &address);
    std::string add_route(const KernelRoute &route);
    std::string delete_route(const KernelRoute &route);
    /* Has the kernel ask a neighbour whether it is still there. */
    void probe(const KernelNeighbour &neighbour);

private:
    bool connect();
    int ask(nl_msg *question, int (*take)(nl_msg *answer, void *to), void *to);

    nl_sock *socket_ = nullptr;
};

} // namespace keel

#endif

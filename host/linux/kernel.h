/*
 * The kernel behind the interfaces of the data model, both ways.
 */
#ifndef HOST_LINUX_KERNEL_H
#define HOST_LINUX_KERNEL_H

#include <map>
#include <string>
#include <vector>

#include "host/gateway/graph.h"
#include "host/linux/netlink.h"

namespace keel {

/* For every "Weft.Intf" instance with the flag "netdev": the flag "up" follows the kernel's link; the kernel's
 * addresses appear as IPv4Addr instances ("Origin" "kernel"); IPv4Addr (also of the DHCP interfaces above it) and
 * IPv4Route instances that others add appear in the kernel, with the outcome in their "Status" ("Enabled" or "error"),
 * and go with them. "Origin" "kernel" instances that others delete take the kernel's address along.
 *
 * It compares and mends, after every change on either side. What a killed run left in the kernel is so removed at the
 * start; the destructor removes what is left of this one. */
class Kernel {
public:
    Kernel(UvLoop &loop, InterfaceGraph &graph);
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;
    ~Kernel();

private:
    void on_event(const Event &event);
    void mend();
    void mend_link(const std::string &name, const KernelLink *link);
    void mend_addresses(const std::string &name, const KernelLink &link, const std::vector<KernelAddress> &present);
    void mend_routes(const std::string &name, const KernelLink &link, const std::vector<KernelRoute> &present);
    void report(const std::string &path, const std::string &what, const std::string &error);
    const KernelLink *link_of(const std::string &name) const;

    InterfaceGraph &graph_;
    Model &model_;
    OnceATurn mending_;
    Netlink netlink_;
    Model::WatchId watch_;
    std::vector<KernelLink> links_; /* as of the last look */
};

} // namespace keel

#endif

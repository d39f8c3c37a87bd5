/*
 * The kernel behind the interfaces of the data model, both ways.
 */
#ifndef HOST_LINUX_KERNEL_H
#define HOST_LINUX_KERNEL_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/gateway/graph.h"
#include "host/linux/kernel_tables.h"

namespace keel {

/* For every "Weft.Intf" instance with the flag "netdev": the flag "up" follows the kernel's link; the kernel's
 * addresses appear as IPv4Addr instances ("Origin" "kernel"); IPv4Addr (also of the DHCP interfaces above it) and
 * IPv4Route instances that others add appear in the kernel, with the outcome in their "Status" ("Enabled" or "error"),
 * and go with them. "Origin" "kernel" instances that others delete take the kernel's address along.
 *
 * It compares and mends, one turn after a change on either side, the devices that the change touches. What a killed run
 * left in the kernel is so removed at the start; the destructor removes what is left of this one. */
class Kernel {
public:
    /* Loop, graph and tables must outlive it. */
    Kernel(Loop &loop, InterfaceGraph &graph, KernelTables &tables);
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;
    ~Kernel();

private:
    using Deleted = std::set<std::pair<std::string, int>>; /* addresses and prefix lengths */

    void on_event(const Event &event);
    void interface_changed(const std::string &name, const Event &event);
    void follow_device(const std::string &dhcp_interface);
    void on_changes(const KernelChanges &changes);
    void touch(const std::string &device);
    void mend();
    void mend_device(const std::string &name, const Deleted &deleted);
    void retire_device(const std::string &name, const Deleted &deleted);
    void mend_link(const std::string &name, const KernelLink *link);
    void mend_addresses(const std::string &name, const KernelLink &link, const Deleted &deleted);
    void delete_address(const std::string &device, const KernelAddress &address);
    void mend_routes(const std::string &name, const KernelLink &link);
    void report(const std::string &device, const std::string &path, const std::string &what, const std::string &error);

    InterfaceGraph &graph_;
    Model &model_;
    KernelTables &tables_;
    OnceATurn mending_;
    Model::WatchId watch_;
    KernelTables::SubscriptionId subscription_;
    std::set<std::string> touched_;                   /* the devices to mend */
    std::map<std::string, Deleted> deleted_;          /* of which somebody has deleted address instances since */
    std::set<std::string> kept_;                      /* the devices that are mended */
    std::set<std::string> refused_;                   /* those of which the kernel has refused something */
    std::map<std::string, std::string> dhcp_devices_; /* DHCP interface -> the device that holds its addresses */
    std::set<std::uint64_t> own_events_;              /* of address instances that came and went with the kernel's */
};

} // namespace keel

#endif

#include "host/linux/readiness.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>

#include "host/linux/program.h"

namespace keel {

namespace {

bool exists(const std::string &device) {
    return if_nametoindex(device.c_str()) != 0;
}

bool ask(const std::string &device, unsigned long question, ifreq &request) {
    device.copy(request.ifr_name, IFNAMSIZ - 1);
    const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool known = handle >= 0 && ioctl(handle, question, &request) == 0;
    if (handle >= 0)
        close(handle);
    return known;
}

bool is_up(const std::string &device) {
    ifreq request{};
    return ask(device, SIOCGIFFLAGS, request) && (request.ifr_flags & IFF_UP) != 0;
}

bool is_bridge(const std::string &device) {
    ethtool_drvinfo driver{};
    driver.cmd = ETHTOOL_GDRVINFO;
    ifreq request{};
    request.ifr_data = reinterpret_cast<char *>(&driver);
    return ask(device, SIOCETHTOOL, request) && std::string(driver.driver) == "bridge";
}

bool has_address(const std::string &device, std::uint32_t address) {
    ifaddrs *all = nullptr;
    if (getifaddrs(&all) != 0)
        return false;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs *)> owner(all, freeifaddrs);
    for (const ifaddrs *one = all; one; one = one->ifa_next)
        if (one->ifa_addr && one->ifa_addr->sa_family == AF_INET && device == one->ifa_name &&
            ntohl(reinterpret_cast<const sockaddr_in *>(one->ifa_addr)->sin_addr.s_addr) == address)
            return true;
    return false;
}

/* 0 where there is no such setting. */
int kernel_setting(const std::string &name) {
    int value = 0;
    std::ifstream("/proc/sys/net/ipv4/" + name) >> value;
    return value;
}

/* How a device that is missing is made. */
std::string how_to_make(const std::string &device) {
    const auto dot = device.rfind('.');
    const std::string below = device.substr(0, dot);
    const std::string vlan = dot == std::string::npos ? "" : device.substr(dot + 1);
    if (vlan.empty() || vlan.find_first_not_of("0123456789") != std::string::npos)
        return "name the right one in keelhost.toml, or have the machine's network configuration make it";
    if (!exists(below))
        return below + " does not exist either: name the right device in keelhost.toml";
    return "have the machine's network configuration make it, as \"ip link add link " + below + " name " + device +
           " type vlan id " + vlan + "\" and \"ip link set " + device + " up\" do until the next start";
}

class Look {
public:
    explicit Look(const MachineNeeds &needs) : needs_(needs) {}

    std::vector<Finding> all() {
        look_at_devices();
        look_at_lan();
        look_at_kernel();
        for (const std::string &program : needs_.programs)
            if (find_program(program).empty())
                found(true, program + " is not found: install its package");
        if (access(needs_.firewall_script.c_str(), X_OK) != 0)
            found(needs_.uses_script, needs_.firewall_script +
                                          " is not there: the simplified modes have their rules from "
                                          "it; install with the prefix /usr, or put a link there");
        return std::move(findings_);
    }

private:
    void found(bool error, const std::string &text) { findings_.push_back({error, text}); }

    void look_at_devices() {
        for (const std::string &device : {needs_.iptv_device, needs_.lan_bridge})
            if (exists(device) && !is_up(device))
                found(false, device + " is down, and nothing is served over it: \"ip link set " + device +
                                 " up\" lets it, and the machine's network configuration from the next start on");
        if (!exists(needs_.iptv_device))
            found(true,
                  "the IPTV device " + needs_.iptv_device + " does not exist: " + how_to_make(needs_.iptv_device));
        if (!exists(needs_.data_device))
            found(needs_.uses_script,
                  "the data device " + needs_.data_device + " does not exist: " + how_to_make(needs_.data_device));
    }

    void look_at_lan() {
        const std::string &bridge = needs_.lan_bridge;
        if (!exists(bridge)) {
            found(true, "the LAN bridge " + bridge +
                            " does not exist: have the machine's network configuration make it and put the LAN's "
                            "ports into it, as \"ip link add " +
                            bridge + " type bridge\" does until the next start");
            return;
        }
        if (!is_bridge(bridge))
            found(false, bridge + " is no bridge: all devices are taken to be behind one port");
        if (needs_.lan_address && !has_address(bridge, needs_.lan_address->address))
            found(true, bridge +
                            " does not have the gateway's address: have the machine's network configuration give it "
                            "that, as \"ip address add " +
                            format_network(*needs_.lan_address) + " dev " + bridge + "\" does until the next start");
    }

    void look_at_kernel() {
        if (kernel_setting("ip_forward") != 1)
            found(needs_.forwards, "net.ipv4.ip_forward is 0, and must be 1: the kernel passes nothing between LAN and "
                                   "operator. Write \"net.ipv4.ip_forward = 1\" into a file of /etc/sysctl.d, then run "
                                   "\"sysctl --system\"");
        const std::string own = "conf/" + needs_.iptv_device + "/rp_filter";
        if (std::max(kernel_setting("conf/all/rp_filter"), kernel_setting(own)) == 1)
            found(needs_.forwards,
                  "the rp_filter of " + needs_.iptv_device +
                      " is 1 (strict), and must be 2 (loose), or 0 there and for \"all\": streams come from servers to "
                      "which no route leads over that device, and the kernel drops them. Write \"net.ipv4.conf.all."
                      "rp_filter = 2\" into a file of /etc/sysctl.d, then run \"sysctl --system\"");
    }

    const MachineNeeds &needs_;
    std::vector<Finding> findings_;
};

} // namespace

std::vector<Finding> look_at_machine(const MachineNeeds &needs) {
    return Look(needs).all();
}

} // namespace keel

/*
 * The multicast daemon between the IPTV device and the LAN bridge.
 */
#ifndef HOST_LINUX_MULTICAST_H
#define HOST_LINUX_MULTICAST_H

#include <memory>
#include <optional>
#include <string>

#include "host/base/growing_pause.h"
#include "host/base/uv_loop.h"
#include "host/gateway/graph.h"
#include "host/linux/child.h"

namespace keel {

/* Runs igmpproxy while "ClientEnable", "MRTIIFEnable" and "WANEnable" of "TIDE.Intf.iptv" are all true, the network
 * device below "iptv" carries "up" and "ipv4", and it and the LAN bridge (flag "bridge") hold an address. It is started
 * anew when one of the devices changes or loses the address that it was started with, and some time after it ended by
 * itself. Another address that comes beside does not disturb it: the streams of all would stop. "Status" is "Running",
 * "Stopped", or "Error" while it ought to run and does not. */
class Multicast {
public:
    /* The configuration file, igmpproxy.conf, is written anew into the folder at each start of the daemon. */
    Multicast(UvLoop &loop, InterfaceGraph &graph, std::string igmpproxy, const std::string &folder);
    Multicast(const Multicast &) = delete;
    Multicast &operator=(const Multicast &) = delete;
    ~Multicast();

private:
    struct Side {
        std::string device;
        std::string address;

        bool operator==(const Side &) const = default;
    };
    struct Setup {
        Side upstream;
        Side downstream;

        bool operator==(const Setup &) const = default;
    };

    std::optional<Setup> wanted() const;
    Side side(const std::string &device, const Side &used) const;
    void follow();
    void start(const Setup &setup);
    std::string configuration(const std::string &upstream, const std::string &downstream) const;
    void ended(int status);
    void failed(const std::string &reason);
    void set_status(const char *status);

    UvLoop &loop_;
    InterfaceGraph &graph_;
    Model &model_;
    std::string igmpproxy_;
    std::string file_;
    Recheck switches_;
    GraphWatch interfaces_;
    Setup used_;
    std::unique_ptr<Child> process_;
    bool killed_ = false;
    Loop::TimerId restart_ = 0;
    GrowingPause pause_{2000, 60000}; /* before the next start of a daemon that does not run */
    std::uint64_t started_ms_ = 0;
};

} // namespace keel

#endif

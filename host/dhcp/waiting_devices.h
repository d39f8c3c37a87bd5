/*
 * The devices that have asked the LAN DHCP server and wait for its answer: what they sent, since when, and why.
 */
#ifndef HOST_DHCP_WAITING_DEVICES_H
#define HOST_DHCP_WAITING_DEVICES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "host/base/loop.h"
#include "host/dhcp/packet.h"
#include "host/model/model.h"

namespace keel {

struct WaitingDevice {
    std::string lease;             /* the path of its lease, of the one that it is to get when it has none yet */
    bool reported = false;         /* there is that lease */
    DhcpMessage message;           /* its latest request, that is answered */
    std::uint64_t asked_ms = 0;    /* when that came */
    std::uint64_t reported_ms = 0; /* when its lease was added, or held */
    bool told = false;             /* why it waits */
    Loop::TimerId probe = 0;       /* while it is looked whether somebody uses its address already */
    Loop::TimerId look = 0;        /* until it is looked whether it is to be reported anew */
};

/* Named like their leases. Each for which a reason is told is an instance of "DHCPv4.Server.Waiting", for people. One
 * without a lease is forgotten when it has not asked for a minute, one with a lease when its owner says so. */
class WaitingDevices {
public:
    WaitingDevices(Loop &loop, Model &model) : loop_(loop), model_(model) {}
    WaitingDevices(const WaitingDevices &) = delete;
    WaitingDevices &operator=(const WaitingDevices &) = delete;
    ~WaitingDevices();

    WaitingDevice *find(const std::string &id);
    /* Its latest request takes the place of the one before. Null when so many wait that there is no room for it: of
     * those without a lease there are few, so that made-up devices keep no real one out. */
    WaitingDevice *keep(const std::string &id, const std::string &lease, bool reported, const DhcpMessage &message);
    /* Why it waits; port: behind which it is, "" when that is not known. */
    void because(const std::string &id, const std::string &reason, const std::string &port);
    void erase(const std::string &id);

private:
    void forget_silent();

    Loop &loop_;
    Model &model_;
    std::map<std::string, WaitingDevice> devices_;
    std::array<std::size_t, 2> waiting_{}; /* without a lease, and with one */
    Loop::TimerId forgetting_ = 0;
};

/* How many devices are newly reported in a minute: a few behind each port. A flood of made-up ones so costs little, and
 * leaves the other ports alone. */
class ReportLimit {
public:
    explicit ReportLimit(Loop &loop) : loop_(loop) {}

    /* Whether the device may be reported now; counts it if so, the same one once. The first refusal of a flood is
     * traced. */
    bool takes(const std::string &port, const std::string &id);
    /* A device that is behind no port asks. The first one of a flood is traced. */
    void refuse_unseen(const std::string &mac);

private:
    struct Port {
        std::map<std::string, std::uint64_t> reported_ms; /* by the device */
        std::optional<std::uint64_t> refused_ms;          /* the latest */
    };

    bool is_past(std::uint64_t time_ms) const;
    /* Notes a refusal; whether it is the first one of a flood. */
    bool begins(std::optional<std::uint64_t> &refused_ms) const;

    Loop &loop_;
    std::map<std::string, Port> ports_;
    std::optional<std::uint64_t> unseen_ms_;
};

} // namespace keel

#endif

/*
 * What has happened to the service lately: the host's own short memory, for a picture of it.
 */
#ifndef HOST_BASE_TIMELINE_H
#define HOST_BASE_TIMELINE_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "host/base/text_forms.h"

namespace keel {

struct TimelineEvent {
    enum class Kind {
        LanDhcp, /* a DHCP message of the LAN side; who: the device's MAC address; what: its type; text: the address */
        WanDhcp, /* the same of the WAN side; who: the interface of the client */
        Refused, /* the LAN server lets a device wait without a lease; text: why */
        Lease,   /* of a device on the LAN; what: "held", "released" or "gone"; text: its address */
        Client,  /* a WAN client has another state (what) */
        State,   /* how a device is served changes: what is "dark", "held", "stop-gap" or "served", text what it was */
        Rule,    /* a command that puts rules in or takes them out (text); what: "done" or "failed" */
        Route,   /* of an interface (who); what: its status, or "gone"; text: the route */
        Mode,    /* a setting (what) and its new value (text) */
        Stream   /* of a multicast group (who): how many packets come in a second (what) from now on */
    };
    std::uint64_t number; /* counted from 1 */
    std::uint64_t wall_clock_ms;
    Kind kind;
    std::string who;
    std::string what;
    std::string text;
    Bytes options; /* of a DHCP message, as they came */
};

/* "lan", "wan", "refused", ... */
const char *kind_name(TimelineEvent::Kind kind);

/* Keeps the latest events, as many as it has room for. What strangers on the network can bring about has room of its
 * own, so that a flood of it does not drive out the rest; so have the streams. */
class Timeline {
public:
    static Timeline &instance();

    /* Long texts and options are cut. */
    void note(TimelineEvent::Kind kind, std::string who, std::string what, std::string text, Bytes options = {});
    /* In the order in which they came. */
    std::vector<TimelineEvent> events() const;
    void clear();

private:
    static constexpr std::size_t most_events = 256; /* of each part */
    static constexpr std::size_t longest_text = 256;
    static constexpr std::size_t longest_options = 400;

    std::deque<TimelineEvent> network_;
    std::deque<TimelineEvent> streams_;
    std::deque<TimelineEvent> own_;
    std::uint64_t noted_ = 0;
};

} // namespace keel

#endif

/*
 * What has happened to the service lately, as a picture.
 */
#ifndef KEELCTL_TIMELINE_H
#define KEELCTL_TIMELINE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "keelctl/client.h"

namespace keelctl {

/* One event of the host's timeline. */
struct Moment {
    std::int64_t time_ms; /* since 1970 */
    std::string kind;     /* "lan", "wan", "lease", ... */
    std::string who;
    std::string what;
    std::string text;
    std::string options; /* of a DHCP message, in hexadecimal */
};

/* How one STB was served over the time. */
struct Strip {
    struct Part {
        std::int64_t from_ms;
        std::string state; /* "dark", "held", "stop-gap", "served" */
    };
    std::string name;
    std::vector<Part> parts; /* each lasts until the next one */
};

/* How much of a multicast group came over the time. */
struct StreamStrip {
    struct Part {
        std::int64_t from_ms;
        std::int64_t rate; /* in packets per second */
    };
    std::string group;
    std::vector<Part> parts; /* each lasts until the next one; before the first nothing came */
};

struct TimelineStory {
    std::string headline;
    std::int64_t from_ms = 0;
    std::int64_t to_ms = 0;
    std::vector<Moment> moments;
    std::vector<Strip> strips;
    std::vector<StreamStrip> streams;
    std::map<std::string, std::string> names; /* of MAC addresses and WAN clients' interfaces, for people */

    const std::string &name_of(const std::string &who) const {
        const auto found = names.find(who);
        return found == names.end() ? who : found->second;
    }
};

/* The events as the host has them. */
std::vector<Json> timeline_events(Client &client);
/* Those from a time on with names, and with how each STB was served; the DHCP of what is no STB is left out. */
TimelineStory gather_story(Client &client, std::int64_t since_ms);

/* When "10m" (or s, h, d) ago was, "10:31" or "10:31:07" today, in milliseconds since 1970. Throws Refused for any
 * other text. */
std::int64_t time_since(const std::string &text, std::int64_t now_ms);

} // namespace keelctl

#endif

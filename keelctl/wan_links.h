/*
 * The links of the chain on the operator's side: WAN client, lease, address, rules, routes and multicast.
 */
#ifndef KEELCTL_WAN_LINKS_H
#define KEELCTL_WAN_LINKS_H

#include <string>
#include <utility>

#include "keelctl/diagnosis.h"

namespace keelctl {

/* Notes the links as they are walked; what it returns tells whether to go on. */
class Walk {
public:
    bool ok(const char *link, std::string text) {
        diagnosis.links.push_back({link, true, std::move(text)});
        return true;
    }

    bool broken(const char *link, const char *cause, std::string brief, std::int64_t since, std::string text,
                std::string remedy) {
        diagnosis.links.push_back({link, false, std::move(text)});
        diagnosis.cause = cause;
        diagnosis.brief = std::move(brief);
        diagnosis.since = since;
        diagnosis.remedy = std::move(remedy);
        return false;
    }

    void evidence(const char *name, Json value) { diagnosis.evidence[name] = std::move(value); }

    Diagnosis diagnosis;
};

/* Of a device that has an identity: its client, what the operator says to it, and its address on the interface. */
bool has_wan_lease(Gateway &gateway, const Device &device, Walk &walk);
bool rules_are_missing(const Gateway &gateway, const Device &device);
bool has_rules(Gateway &gateway, const Device &device, Walk &walk);
bool has_routes(Gateway &gateway, Walk &walk);
bool has_multicast(Gateway &gateway, const Device &device, Walk &walk);

} // namespace keelctl

#endif

/*
 * Why a device is not served: the chain from its first packet to its picture, walked as far as it holds.
 */
#ifndef KEELCTL_DIAGNOSIS_H
#define KEELCTL_DIAGNOSIS_H

#include <cstdint>
#include <string>
#include <vector>

#include "keelctl/gateway.h"

namespace keelctl {

struct Link {
    const char *name; /* of a fixed set: service, lan, class, identity, client, ... */
    bool ok;
    std::string text;
};

struct Diagnosis {
    std::vector<Link> links; /* as far as looked at: the last one is the broken one, if any is */
    std::string cause;       /* of a fixed set, such as "operator_silent"; "" when the device is served */
    std::string brief;       /* the same in a few words after its name: "waits for the operator" */
    std::int64_t since = 0;  /* in seconds since 1970; 0: not known */
    std::string remedy;      /* what to do about it */
    Json evidence = Json::object();

    bool served() const { return cause.empty(); }
};

Diagnosis diagnose(Gateway &gateway, const Device &device);

/* The same as a JSON object, and for a person to read. */
Json diagnosis_json(const Device &device, const Diagnosis &diagnosis);
std::string print_diagnosis(const Gateway &gateway, const Device &device, const Diagnosis &diagnosis);

/* "3 of 4 STBs served: stb-bedroom waits for the operator since 2 min", of those that are on the LAN; and by the way
 * their JSON to *list. */
std::string headline(Gateway &gateway, Json *list);

} // namespace keelctl

#endif

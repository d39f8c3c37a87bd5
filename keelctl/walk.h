/*
 * The chain of links from a device to its service, as it is being walked.
 */
#ifndef KEELCTL_WALK_H
#define KEELCTL_WALK_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "keelctl/client.h"

namespace keelctl {

struct Link {
    const char *name;  /* of a fixed set: service, lan, class, identity, client, ... */
    const char *state; /* "ok", "unseen" or "broken" */
    std::string text;
};

struct Diagnosis {
    std::vector<Link> links; /* as far as looked at: the last one is the broken one, if any is */
    std::string cause;       /* of a fixed set, such as "operator_silent"; "" when the device is served */
    std::string brief;       /* the same in a few words after its name: "waits for the operator" */
    std::int64_t since = 0;  /* in seconds since 1970; 0: not known */
    std::string remedy;      /* what to do about it */
    bool unseen = false;     /* not all could be looked at */
    Json evidence = Json::object();

    bool served() const { return cause.empty(); }
};

/* Notes the links as they are walked; what it returns tells whether to go on. */
class Walk {
public:
    bool ok(const char *link, std::string text) {
        diagnosis.links.push_back({link, "ok", std::move(text)});
        return true;
    }

    /* What cannot be looked at may be in order. */
    bool unseen(const char *link, std::string text) {
        diagnosis.links.push_back({link, "unseen", std::move(text)});
        diagnosis.unseen = true;
        return true;
    }

    bool broken(const char *link, const char *cause, std::string brief, std::int64_t since, std::string text,
                std::string remedy) {
        diagnosis.links.push_back({link, "broken", std::move(text)});
        diagnosis.cause = cause;
        diagnosis.brief = std::move(brief);
        diagnosis.since = since;
        diagnosis.remedy = std::move(remedy);
        return false;
    }

    void evidence(const char *name, Json value) { diagnosis.evidence[name] = std::move(value); }

    Diagnosis diagnosis;
};

} // namespace keelctl

#endif

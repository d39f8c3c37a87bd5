/*
 * Reading what the host tells: objects as JSON trees, the stack of IPTV interfaces, and texts for people.
 */
#ifndef KEELCTL_TREE_H
#define KEELCTL_TREE_H

#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "keelctl/client.h"

namespace keelctl {

/* Of what is not there: an empty object, text, list; false; 0. */
Json child(const Json &tree, const std::string &name);
Json descend(Json tree, std::initializer_list<const char *> names);
/* By value: a loop over it keeps it alive. */
Json children(const Json &tree, std::initializer_list<const char *> names);
std::string text(const Json &tree, const char *parameter);
bool flag(const Json &tree, const char *parameter);
std::int64_t number(const Json &tree, const char *parameter);
/* A time in seconds since 1970 that has been; 0, not known, for one of before the clock was set, or of after now. */
std::int64_t past_time(const Json &tree, const char *parameter, std::int64_t now);
Json instance(Client &client, const std::string &parent, const std::string &name);

bool has_word(const std::string &words, const std::string &word);

/* The interfaces that are looked at, asked for one by one: a gateway may have many that have nothing to do with IPTV.
 */
class Interfaces {
public:
    explicit Interfaces(Client &client) : client_(client) {}

    const Json &operator[](const std::string &name);
    bool has(const std::string &name, const char *flag_name) {
        return has_word(text((*this)[name], "Flags"), flag_name);
    }
    /* An interface and all below it, breadth first as the plug-in looks for them. */
    std::vector<std::string> stack(const std::string &top);
    /* The first network device at or below an interface; live: that is up. "" for none. */
    std::string device_below(const std::string &top, bool live);

private:
    Client &client_;
    std::map<std::string, Json> known_;
};

/* ----------------------------------------------------------------------------------------------------- texts */

std::string pad(std::string field, std::size_t width);
/* "none" for nothing, and for 0.0.0.0. */
std::string or_none(const std::string &value);
/* "94 s", "12 min", "31 h", "3 days" */
std::string duration(std::int64_t seconds);
/* "00:09:38", with the date when that is not today's; now and then in seconds since 1970. */
std::string time_of_day(std::int64_t then, std::int64_t now);

} // namespace keelctl

#endif

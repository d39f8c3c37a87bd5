/*
 * keelhost.toml, read and checked.
 */
#ifndef HOST_CONFIG_BOX_CONFIG_H
#define HOST_CONFIG_BOX_CONFIG_H

#include <map>
#include <string>
#include <vector>

#include "host/config/box_keys.h"

namespace keel {

/* What a file sets. "device" and "vlan" of an interface come as its "interface". */
struct BoxConfig {
    struct Setting {
        std::string text; /* as its key reads it */
        unsigned line = 0;
    };
    std::string file;                        /* "" for none: nothing is set */
    std::map<std::string, Setting> settings; /* by key */
    std::vector<std::string> errors;         /* all of them, each "FILE:LINE: what is wrong: what is allowed" */

    /* The setting, else the default. */
    std::string text(const std::string &key, const BoxDefaults &defaults) const;
};

BoxConfig read_box_config(const std::string &file, const BoxDefaults &defaults);

} // namespace keel

#endif

/*
 * A TOML file as a flat list of what it says, each with its line; the only unit that knows the library which parses it.
 */
#ifndef HOST_CONFIG_TOML_FILE_H
#define HOST_CONFIG_TOML_FILE_H

#include <string>
#include <vector>

#include "host/model/value.h"

namespace keel {

struct TomlEntry {
    std::string key; /* with its tables: "lan.address" */
    unsigned line = 0;
    bool list = false;
    std::vector<Value> values; /* one, or those of the list; none for what the host has no use for: dates, fractions,
                                  lists in lists, a table with nothing in it */
    std::string shown;         /* the value in words, for messages */
};

struct TomlFile {
    std::vector<TomlEntry> entries;
    std::string error; /* "FILE:LINE: why" for what cannot be read, or is no TOML; then there are no entries */
};

TomlFile read_toml(const std::string &file);

} // namespace keel

#endif

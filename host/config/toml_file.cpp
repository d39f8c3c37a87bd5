#include "host/config/toml_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

/* What the library takes for granted of a file that is no TOML ("[a"b"), and looks at all the same right after: with
 * NDEBUG it has the compiler believe it and leave that look out, without it ends the process. */
#pragma push_macro("NDEBUG")
#undef NDEBUG
#define TOML_ASSERT(expr) static_cast<void>(0)
#define TOML_ENABLE_FORMATTERS 0 /* the file is read, and never written */
#include <toml++/toml.h>
#pragma pop_macro("NDEBUG")

#include "host/model/node.h"

namespace keel {

namespace {

bool add_value(const toml::node &node, std::vector<Value> &values) {
    if (const auto *text = node.as_string())
        values.emplace_back(text->get());
    else if (const auto *number = node.as_integer())
        values.emplace_back(std::int64_t{number->get()});
    else if (const auto *boolean = node.as_boolean())
        values.emplace_back(boolean->get());
    else
        return false;
    return true;
}

std::string in_words(const TomlEntry &entry) {
    std::string words;
    for (const Value &value : entry.values) {
        const bool text = std::holds_alternative<std::string>(value);
        words += (words.empty() ? "" : ", ") + (text ? '"' + to_text(value) + '"' : to_text(value));
    }
    return entry.list ? "[" + words + "]" : words;
}

/* The library takes some characters beyond ASCII for spaces, and cannot tell all of them. No value that the host takes
 * has any: what stands in a comment may be anything, and elsewhere a mistake is told all the same. */
std::string in_ascii(std::string text) {
    constexpr std::string_view byte_order_mark = "\xef\xbb\xbf";
    if (text.starts_with(byte_order_mark))
        text.erase(0, byte_order_mark.size());
    std::replace_if(
        text.begin(), text.end(), [](unsigned char byte) { return byte >= 0x80; }, '?');
    return text;
}

void flatten(const toml::table &table, const std::string &path, std::vector<TomlEntry> &entries) {
    for (const auto &[name, node] : table) {
        TomlEntry entry{join_path(path, name.str()), static_cast<unsigned>(name.source().begin.line), false, {}, {}};
        const toml::table *below = node.as_table();
        if (below && !below->empty()) {
            flatten(*below, entry.key, entries);
            continue;
        }
        bool usable = !below;
        if (const toml::array *list = node.as_array()) {
            entry.list = true;
            for (const toml::node &one : *list)
                usable = usable && add_value(one, entry.values);
        } else if (usable) {
            usable = add_value(node, entry.values);
        }
        entry.shown = in_words(entry);
        if (!usable) {
            entry.list = false;
            entry.values.clear();
            entry.shown = below ? "a table" : "nothing that is used here";
        }
        entries.push_back(std::move(entry));
    }
}

} // namespace

TomlFile read_toml(const std::string &file) {
    TomlFile read;
    std::error_code no_folder;
    errno = std::filesystem::is_directory(file, no_folder) ? EISDIR : 0;
    std::ifstream stream;
    if (errno == 0)
        stream.open(file);
    if (!stream.is_open()) {
        read.error = file + ": cannot be read: " + std::strerror(errno);
        return read;
    }
    std::ostringstream text;
    text << stream.rdbuf();
    try {
        flatten(toml::parse(in_ascii(text.str())), "", read.entries);
    } catch (const toml::parse_error &mistake) {
        read.error =
            file + ":" + std::to_string(mistake.source().begin.line) + ": " + std::string(mistake.description());
    }
    std::stable_sort(read.entries.begin(), read.entries.end(),
                     [](const TomlEntry &one, const TomlEntry &other) { return one.line < other.line; });
    return read;
}

} // namespace keel

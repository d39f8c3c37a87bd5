#include "keelctl/output.h"

#include <cstdio>
#include <ctime>

namespace keelctl {

std::string value_text(const Json &value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string tree_text(const Json &tree, const std::string &path) {
    const std::string above = path.empty() ? "" : path + ".";
    std::string lines;
    for (const auto &[name, value] : tree["parameters"].items())
        lines += above + name + "=" + value_text(value) + "\n";
    for (const Json &one : tree["children"])
        lines += tree_text(one, above + one["name"].get<std::string>());
    return lines;
}

std::string trace_text(const Json &line) {
    const auto milliseconds = line["time_ms"].get<std::uint64_t>();
    const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    const auto level = line["level"].get<unsigned>();
    char time[32];
    std::snprintf(time, sizeof time, "%02d:%02d:%02d.%03u %c ", local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<unsigned>(milliseconds % 1000),
                  level <= 100   ? 'x'
                  : level <= 200 ? '!'
                                 : 'i');
    return time + line["zone"].get<std::string>() + ": " + line["text"].get<std::string>() + "\n";
}

} // namespace keelctl

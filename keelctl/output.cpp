#include "keelctl/output.h"

#include "host/base/trace_form.h"

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
    return keel::format_trace(line["time_ms"], line["level"], line["zone"], line["text"]) + "\n";
}

} // namespace keelctl

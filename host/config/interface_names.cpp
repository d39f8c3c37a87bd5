#include "host/config/interface_names.h"

#include <sstream>
#include <utility>
#include <vector>

#include "host/base/trace.h"
#include "host/gateway/graph.h"

namespace keel {

namespace {

/* What an instance holds, and the instances below it, by the name of their object. */
struct Copy {
    std::string name;
    Values values;
    std::map<std::string, std::vector<Copy>> below;
};

Copy copy_of(const Node &node) {
    Copy copy{node.name, node.values(), {}};
    for (const Node &object : node.children)
        for (const Node &instance : object.children)
            copy.below[object.name].push_back(copy_of(instance));
    return copy;
}

void report(const Outcome &refusal) {
    if (refusal)
        trace(Level::Error, "settings", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
}

/* Some instances stand there from the start. */
void put(Model &model, const std::string &parent, const Copy &copy) {
    const std::string path = join_path(parent, copy.name);
    report(model.find(path) ? model.set(path, copy.values) : model.add(parent, copy.name, copy.values));
    for (const auto &[object, instances] : copy.below)
        for (const Copy &instance : instances)
            put(model, join_path(path, object), instance);
}

std::string renamed_words(const std::string &text, const std::map<std::string, std::string> &names) {
    std::string renamed;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const auto name = names.find(word);
        renamed += (renamed.empty() ? "" : " ") + (name == names.end() ? word : name->second);
    }
    return renamed;
}

} // namespace

void rename_interfaces(Model &model, const std::map<std::string, std::string> &names) {
    std::vector<Copy> copies;
    for (const auto &[old, fresh] : names)
        if (const Node *node = model.find(interface_path(old))) {
            copies.push_back(copy_of(*node));
            copies.back().name = fresh;
        }
    for (const auto &[old, fresh] : names)
        if (model.find(interface_path(old)))
            report(model.remove(interface_path(old)));
    for (const Copy &copy : copies)
        put(model, interfaces_path, copy);
    for (const std::string &name : model.instances(interfaces_path)) {
        const std::string links = model.text(interface_path(name), "LowerLayers");
        report(model.set(interface_path(name), {{"LowerLayers", renamed_words(links, names)}}));
    }
}

} // namespace keel

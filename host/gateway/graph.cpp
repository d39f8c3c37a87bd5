#include "host/gateway/graph.h"

#include <algorithm>
#include <map>

namespace keel {

std::optional<Traversal> parse_traversal(std::string_view text) {
    static const std::map<std::string_view, Traversal> names = {{"this", Traversal::This},
                                                                {"down", Traversal::Down},
                                                                {"down exclusive", Traversal::DownExclusive},
                                                                {"up", Traversal::Up},
                                                                {"one level down", Traversal::OneLevelDown},
                                                                {"one level up", Traversal::OneLevelUp},
                                                                {"all", Traversal::All}};
    const auto found = names.find(text);
    return found == names.end() ? std::nullopt : std::optional<Traversal>(found->second);
}

std::string interface_path(std::string_view name) {
    return "Weft.Intf." + std::string(name);
}

namespace {

/* A set of words that an interface holds as a text. */
const std::string &words_of(const Node &intf, std::string_view parameter_name) {
    static const std::string none;
    const Parameter *parameter = intf.parameter(parameter_name);
    const auto *words = parameter ? std::get_if<std::string>(&parameter->value) : nullptr;
    return words ? *words : none;
}

const Node *interface_of(const Model &model, std::string_view name) {
    const Node *all = model.find("Weft.Intf");
    return all ? all->child(name) : nullptr;
}

std::vector<const Node *> neighbours(const Node &intf, bool down) {
    const Node &all = *intf.parent;
    std::vector<const Node *> found;
    if (down) {
        for (const std::string &lower : split_words(words_of(intf, "LowerLayers")))
            if (const Node *node = all.child(lower))
                found.push_back(node);
    } else {
        for (const auto &upper : all.children)
            if (has_word(words_of(*upper, "LowerLayers"), intf.name))
                found.push_back(upper.get());
    }
    return found;
}

/* Breadth first from the start, which is the first. */
std::vector<const Node *> closure(const Node &start, bool down) {
    std::vector<const Node *> order{&start};
    for (std::size_t at = 0; at < order.size(); ++at)
        for (const Node *next : neighbours(*order[at], down))
            if (std::find(order.begin(), order.end(), next) == order.end())
                order.push_back(next);
    return order;
}

std::vector<const Node *> nodes_reached(const Model &model, std::string_view start_name, Traversal traversal) {
    const Node *start = interface_of(model, start_name);
    if (!start)
        return {};
    std::vector<const Node *> order;
    switch (traversal) {
    case Traversal::This:
        return {start};
    case Traversal::OneLevelDown:
        return neighbours(*start, true);
    case Traversal::OneLevelUp:
        return neighbours(*start, false);
    case Traversal::All:
        order.push_back(start);
        for (const auto &node : start->parent->children)
            if (node.get() != start)
                order.push_back(node.get());
        return order;
    case Traversal::Up:
        return closure(*start, false);
    case Traversal::Down:
        return closure(*start, true);
    default:
        order = closure(*start, true);
        order.erase(order.begin());
        return order;
    }
}

} // namespace

bool interface_exists(const Model &model, std::string_view name) {
    return interface_of(model, name);
}

std::string interface_flags(const Model &model, std::string_view name) {
    const Node *intf = interface_of(model, name);
    return intf ? words_of(*intf, "Flags") : "";
}

std::vector<std::string> reach(const Model &model, std::string_view start, Traversal traversal,
                               const Expression &condition) {
    std::vector<std::string> names;
    for (const Node *node : nodes_reached(model, start, traversal)) {
        const std::vector<std::string> flags = split_words(words_of(*node, "Flags"));
        if (condition.evaluate([&](const Expression::Word &flag) {
                return std::find(flags.begin(), flags.end(), flag.name) != flags.end();
            }))
            names.push_back(node->name);
    }
    return names;
}

bool would_loop(const Model &model, std::string_view upper, std::string_view lower) {
    const auto below = reach(model, lower, Traversal::Down);
    return std::find(below.begin(), below.end(), upper) != below.end();
}

std::string netdev_below(const Model &model, std::string_view name) {
    for (const Node *node : nodes_reached(model, name, Traversal::Down))
        if (has_word(words_of(*node, "Flags"), "netdev"))
            return node->name;
    return "";
}

std::vector<std::string> interface_addresses(const Model &model, const std::string &device) {
    std::vector<std::string> paths;
    const auto add = [&](const std::string &name) {
        const std::string parent = interface_path(name) + ".IPv4Addr";
        for (const std::string &instance : model.instances(parent))
            paths.push_back(parent + "." + instance);
    };
    add(device);
    for (const std::string &name : model.instances("Weft.Intf")) {
        const std::string flags = interface_flags(model, name);
        if (has_word(flags, "dhcp") && !has_word(flags, "netdev") && netdev_below(model, name) == device)
            add(name);
    }
    return paths;
}

} // namespace keel

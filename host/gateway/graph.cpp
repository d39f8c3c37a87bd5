#include "host/gateway/graph.h"

#include <algorithm>
#include <map>
#include <unordered_set>
#include <utility>

namespace keel {

namespace {

/* Interfaces are the instances of "Weft.Intf": their paths have three names. */
constexpr std::size_t interface_depth = 3;

bool of_interface(const Event &event) {
    return event.steps.size() >= interface_depth && event.steps[0] == "Weft" && event.steps[1] == "Intf";
}

std::string text_in(const Values &values, const char *name) {
    const auto found = values.find(name);
    return found == values.end() ? "" : to_text(found->second);
}

} // namespace

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
    return join_path(interfaces_path, name);
}

/* ----------------------------------------------------------------------------------------- keeping the index */

InterfaceGraph::InterfaceGraph(Model &model) : model_(model) {
    if (const Node *all = model_.find(interfaces_path))
        for (const Node &one : all->children)
            add(one.name, text_in(one.values(), "Flags"), text_in(one.values(), "LowerLayers"));
    model_.observe(this, [this](const Event &event) { observe(event); });
}

InterfaceGraph::~InterfaceGraph() {
    model_.observe(this, nullptr);
}

bool InterfaceGraph::Entry::carries(std::string_view flag) const {
    return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

void InterfaceGraph::observe(const Event &event) {
    if (event.steps.size() != interface_depth || !of_interface(event))
        return;
    const std::string &name = event.steps.back();
    if (event.kind == Event::Kind::Added)
        add(name, text_in(event.values, "Flags"), text_in(event.values, "LowerLayers"));
    else if (event.kind == Event::Kind::Deleted)
        remove(name);
    if (event.kind != Event::Kind::Changed)
        return;
    if (event.values.contains("Flags"))
        set_flags(entry(name), text_in(event.values, "Flags"));
    if (event.values.contains("LowerLayers"))
        set_links(entry(name), text_in(event.values, "LowerLayers"));
}

InterfaceGraph::Entry &InterfaceGraph::entry(const std::string &name) {
    Entry &found = entries_[name];
    if (found.name.empty())
        found.name = name;
    return found;
}

void InterfaceGraph::add(const std::string &name, const std::string &flags, const std::string &links) {
    Entry &fresh = entry(name);
    fresh.order = ++last_order_;
    in_order_[fresh.order] = &fresh;
    set_flags(fresh, flags);
    set_links(fresh, links);
}

void InterfaceGraph::remove(const std::string &name) {
    Entry &gone = entry(name);
    set_flags(gone, "");
    set_links(gone, "");
    in_order_.erase(gone.order);
    gone.order = 0;
    forget_if_unused(gone);
}

void InterfaceGraph::set_flags(Entry &of, const std::string &flags) {
    for (const std::string &flag : of.flags)
        if (const auto found = by_flag_.find(flag); found != by_flag_.end()) {
            found->second.erase(of.order);
            if (found->second.empty())
                by_flag_.erase(found);
        }
    of.flags = split_words(flags);
    for (const std::string &flag : of.flags)
        by_flag_[flag][of.order] = &of;
}

void InterfaceGraph::set_links(Entry &of, const std::string &links) {
    const auto before = std::exchange(of.lower, {});
    for (Entry *lower : before)
        lower->upper.erase(of.order);
    for (const std::string &name : split_words(links)) {
        Entry &lower = entry(name);
        if (lower.upper.contains(of.order))
            continue; /* named twice */
        of.lower.push_back(&lower);
        lower.upper[of.order] = &of;
    }
    for (Entry *lower : before)
        forget_if_unused(*lower);
}

void InterfaceGraph::forget_if_unused(Entry &one) {
    if (one.order == 0 && one.upper.empty())
        entries_.erase(std::string(one.name));
}

/* ------------------------------------------------------------------------------------------------- questions */

const InterfaceGraph::Entry *InterfaceGraph::find(const std::string &name) const {
    const auto found = entries_.find(name);
    return found == entries_.end() || found->second.order == 0 ? nullptr : &found->second;
}

bool InterfaceGraph::exists(const std::string &name) const {
    return find(name) != nullptr;
}

bool InterfaceGraph::has_flag(const std::string &name, std::string_view flag) const {
    const Entry *one = find(name);
    return one && one->carries(flag);
}

std::vector<std::string> InterfaceGraph::with_flag(const std::string &flag) const {
    std::vector<std::string> names;
    if (const auto found = by_flag_.find(flag); found != by_flag_.end())
        for (const auto &[order, one] : found->second)
            names.push_back(one->name);
    return names;
}

/* Breadth first from the start, which is the first. */
std::vector<const InterfaceGraph::Entry *> InterfaceGraph::closure(const Entry &start, bool down,
                                                                   std::set<std::string> *looked_at) {
    std::vector<const Entry *> order{&start};
    std::unordered_set<const Entry *> seen{&start};
    const auto take = [&](const Entry *next) {
        if (looked_at)
            looked_at->insert(next->name);
        if (next->order && seen.insert(next).second)
            order.push_back(next);
    };
    for (std::size_t at = 0; at < order.size(); ++at) {
        if (down)
            for (const Entry *lower : order[at]->lower)
                take(lower);
        else
            for (const auto &[number, upper] : order[at]->upper)
                take(upper);
    }
    return order;
}

std::vector<const InterfaceGraph::Entry *> InterfaceGraph::reached(const Entry &start, Traversal traversal,
                                                                   std::set<std::string> *looked_at) const {
    std::vector<const Entry *> order;
    switch (traversal) {
    case Traversal::This:
        return {&start};
    case Traversal::OneLevelDown:
        for (const Entry *lower : start.lower) {
            if (looked_at)
                looked_at->insert(lower->name);
            if (lower->order)
                order.push_back(lower);
        }
        return order;
    case Traversal::OneLevelUp:
        for (const auto &[number, upper] : start.upper) {
            if (looked_at)
                looked_at->insert(upper->name);
            order.push_back(upper);
        }
        return order;
    case Traversal::All:
        if (looked_at)
            *looked_at = {""};
        order.push_back(&start);
        for (const auto &[number, one] : in_order_)
            if (one != &start)
                order.push_back(one);
        return order;
    case Traversal::Up:
        return closure(start, false, looked_at);
    case Traversal::Down:
        return closure(start, true, looked_at);
    default:
        order = closure(start, true, looked_at);
        order.erase(order.begin());
        return order;
    }
}

std::vector<std::string> InterfaceGraph::reach(const std::string &start, Traversal traversal,
                                               const Expression &condition, std::set<std::string> *looked_at) const {
    if (looked_at)
        *looked_at = {start};
    const Entry *from = find(start);
    if (!from)
        return {};
    std::vector<std::string> names;
    for (const Entry *one : reached(*from, traversal, looked_at))
        if (condition.evaluate([&](const Expression::Word &flag) { return one->carries(flag.name); }))
            names.push_back(one->name);
    return names;
}

std::vector<std::string> InterfaceGraph::linked_over(const std::string &name) const {
    std::vector<std::string> names;
    if (const auto found = entries_.find(name); found != entries_.end())
        for (const auto &[order, upper] : found->second.upper)
            names.push_back(upper->name);
    return names;
}

bool InterfaceGraph::would_loop(const std::string &upper, const std::string &lower) const {
    const auto below = reach(lower, Traversal::Down);
    return std::find(below.begin(), below.end(), upper) != below.end();
}

const InterfaceGraph::Entry *InterfaceGraph::first_netdev(const std::vector<const Entry *> &order, bool live) {
    const auto found = std::find_if(order.begin(), order.end(), [live](const Entry *one) {
        return one->carries("netdev") && (!live || one->carries("up"));
    });
    return found == order.end() ? nullptr : *found;
}

std::string InterfaceGraph::netdev_below(const std::string &name) const {
    const Entry *start = find(name);
    const Entry *device = start ? first_netdev(closure(*start, true, nullptr), false) : nullptr;
    return device ? device->name : "";
}

std::string InterfaceGraph::live_netdev_below(const std::string &name) const {
    const Entry *start = find(name);
    const Entry *device = start ? first_netdev(closure(*start, true, nullptr), true) : nullptr;
    return device ? device->name : "";
}

std::vector<std::string> InterfaceGraph::addresses(const std::string &device) const {
    std::vector<std::string> paths;
    const Entry *held_by = find(device);
    if (!held_by)
        return paths;
    const auto add_those_of = [&](const std::string &name) {
        const std::string parent = interface_path(name) + ".IPv4Addr";
        if (const Node *all = model_.find(parent))
            for (const Node &one : all->children)
                paths.push_back(join_path(parent, one.name));
    };
    add_those_of(device);
    std::map<std::uint64_t, const Entry *> leases; /* in the order of the model */
    for (const Entry *above : closure(*held_by, false, nullptr)) {
        if (!above->carries("dhcp") || above->carries("netdev"))
            continue;
        const auto below = closure(*above, true, nullptr);
        const Entry *live = first_netdev(below, true);
        if ((live ? live : first_netdev(below, false)) == held_by)
            leases[above->order] = above;
    }
    for (const auto &[order, one] : leases)
        add_those_of(one->name);
    return paths;
}

Outcome InterfaceGraph::set_flag(const std::string &name, const std::string &flag, bool wanted) {
    if (has_flag(name, flag) == wanted)
        return std::nullopt;
    const std::string flags = model_.text(interface_path(name), "Flags");
    return model_.set(interface_path(name), {{"Flags", wanted ? with_word(flags, flag) : without_word(flags, flag)}});
}

/* -------------------------------------------------------------------------------------------- looking again */

GraphWatch::GraphWatch(Loop &loop, InterfaceGraph &graph, Check check)
    : model_(graph.model()), turn_(loop,
                                   [this, check = std::move(check)] {
                                       const Names touched = std::exchange(touched_, {});
                                       check(touched);
                                   }),
      watch_(model_.watch(interfaces_path, [this](const Event &event) { on_event(event); },
                          {{"Flags", "LowerLayers", "Enable", "IPTVAddress", "Address", "Status"}, false})) {}

GraphWatch::~GraphWatch() {
    model_.unwatch(watch_);
}

void GraphWatch::schedule(const Names &names) {
    touched_.insert(names.begin(), names.end());
    turn_.schedule();
}

void GraphWatch::on_event(const Event &event) {
    if (!of_interface(event))
        return;
    const bool of_address = event.steps.size() > interface_depth && event.steps[3] == "IPv4Addr";
    if (event.steps.size() > interface_depth && !of_address)
        return;
    touched_.insert(event.steps[2]);
    if (!of_address)
        for (const Values *values : {&event.values, &event.before})
            for (std::string &linked : split_words(text_in(*values, "LowerLayers")))
                touched_.insert(std::move(linked));
    turn_.schedule();
}

GraphWatch::Names with_stack(const InterfaceGraph &graph, const GraphWatch::Names &names) {
    GraphWatch::Names all = names;
    const auto take = [&](const std::string &start, Traversal way) {
        for (std::string &one : graph.reach(start, way)) {
            if (way == Traversal::Up && graph.has_flag(one, "dhcp"))
                for (std::string &device : graph.reach(one, Traversal::Down))
                    all.insert(std::move(device));
            all.insert(std::move(one));
        }
    };
    for (const std::string &name : names) {
        take(name, Traversal::Down);
        take(name, Traversal::Up);
        if (!graph.exists(name)) /* those that were over it have lost it */
            for (const std::string &above : graph.linked_over(name))
                take(above, Traversal::Up);
    }
    return all;
}

} // namespace keel

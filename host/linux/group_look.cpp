#include "host/linux/group_look.h"

#include <fstream>
#include <set>
#include <sstream>

#include "host/linux/streams.h"

namespace keel {

namespace {

constexpr const char *groups_path = "TIDE.Group";

/* The groups that the kernel is a member of on a device. A line of the table names a device ("2 eth0 : 3 V2"), those
 * below it, which are set in, its groups. */
std::set<std::string> asked_for(const std::string &device) {
    std::ifstream table("/proc/self/net/igmp");
    std::set<std::string> groups;
    bool ours = false;
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string first;
        std::string name;
        words >> first >> name;
        if (!line.starts_with("\t"))
            ours = name == device;
        else if (ours)
            groups.insert(address_of_table(first));
    }
    return groups;
}

} // namespace

void look_at_groups(const InterfaceGraph &graph, KernelTables &tables) {
    Model &model = graph.model();
    if (!model.find(groups_path))
        return;
    for (const std::string &name : model.instances(groups_path))
        model.remove(join_path(groups_path, name));
    const auto bridges = graph.with_flag("bridge");
    const KernelLink *bridge = bridges.empty() ? nullptr : tables.link(bridges.front());
    if (!bridge)
        return;
    const auto asked = asked_for(graph.live_netdev_below("iptv"));
    const auto coming = read_streams();
    for (const KernelMembership &joined : tables.memberships(bridge->index)) {
        const KernelLink *port = tables.link(joined.port);
        if (!port || joined.port == bridge->index)
            continue; /* the gateway itself */
        const auto stream = coming.find(joined.group);
        const char *state = !asked.contains(joined.group) ? "NotAsked"
                            : stream == coming.end()      ? "NoStream"
                            : stream->second.forwarded    ? "Forwarded"
                                                          : "NotForwarded";
        model.add(groups_path, std::nullopt,
                  {{"Address", joined.group}, {"Port", port->name}, {"State", std::string(state)}});
    }
}

} // namespace keel

#include "host/gateway/leftovers.h"

#include <string>
#include <vector>

#include "host/base/trace.h"
#include "host/gateway/graph.h"
#include "host/gateway/settings.h"

namespace keel {

namespace {

constexpr const char *received_routes_path = "Keel.Zephyrin.ClasslessStaticRoute";
constexpr const char *no_server = "00000000";
constexpr const char *own_route_prefix = "zep_"; /* of the keys under which the routed mode adds routes */

std::vector<std::string> instance_paths(const Model &model, const std::string &parent) {
    std::vector<std::string> paths;
    for (const std::string &name : model.instances(parent))
        paths.push_back(join_path(parent, name));
    return paths;
}

std::vector<std::string> installed_routes(const Model &model, const std::string &interface) {
    std::vector<std::string> paths;
    for (const std::string &path : instance_paths(model, interface_path(interface) + ".IPv4Route"))
        if (path.substr(path.rfind('.') + 1).starts_with(own_route_prefix))
            paths.push_back(path);
    return paths;
}

void remove(Model &model, const std::vector<std::string> &paths, const char *what) {
    if (paths.empty())
        return;
    trace(Level::Info, "settings", "an earlier run has left %zu %s: removed", paths.size(), what);
    for (const std::string &path : paths)
        if (const Outcome refusal = model.remove(path))
            trace(Level::Warning, "settings", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
}

/* What the operator sent for the STBs is of the routed mode alone. */
void forget_servers(Model &model) {
    for (const char *server : {"NTPServer", "WWWServer"})
        if (model.get(service_path, server))
            model.set(service_path, {{server, std::string(no_server)}});
    for (const char *pool : iptv_pools)
        for (const char *option : {"ntp", "www"})
            if (const std::string path = std::string(pool) + ".Option." + option; model.find(path))
                model.set(path, {{"Enable", false}, {"Value", std::string(no_server)}});
}

void release_holds(Model &model) {
    for (const char *pool : iptv_pools)
        for (const std::string &rule : instance_paths(model, std::string(pool) + ".Rule"))
            for (const std::string &lease : instance_paths(model, rule + ".Lease"))
                model.set(lease, {{"OnHold", false}});
}

} // namespace

void drop_leftovers(Model &model) {
    if (is_routed(model))
        return;
    remove(model, instance_paths(model, identities_path), "identities of the routed mode");
    remove(model, instance_paths(model, received_routes_path), "received routes of the routed mode");
    for (const std::string &interface : model.instances(interfaces_path))
        remove(model, installed_routes(model, interface), "routes of the routed mode");
    forget_servers(model);
    release_holds(model);
}

void drop_stray_routes(const InterfaceGraph &graph) {
    Model &model = graph.model();
    if (!is_routed(model))
        return; /* there are none */
    const std::string iptv = graph.live_netdev_below("iptv");
    for (const std::string &interface : model.instances(interfaces_path))
        if (interface != iptv)
            remove(model, installed_routes(model, interface), "routes on another interface than the IPTV one");
    if (iptv.empty() || installed_routes(model, iptv).empty())
        remove(model, instance_paths(model, received_routes_path), "received routes that are not installed");
}

} // namespace keel

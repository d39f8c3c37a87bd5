#include "host/linux/kernel.h"

#include <algorithm>
#include <fstream>

#include "host/base/trace.h"
#include "host/gateway/graph.h"

namespace keel {

namespace {

/* Without it, deleting the first of several addresses of a subnet takes the others along. */
void keep_secondaries(const std::string &link) {
    std::ofstream("/proc/sys/net/ipv4/conf/" + link + "/promote_secondaries") << "1";
}

void write(Model &model, const std::string &path, const Values &values) {
    if (const Outcome refusal = model.set(path, values))
        trace(Level::Warning, "kernel", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
}

std::string network_of(const std::string &dotted, int prefix) {
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    if (std::sscanf(dotted.c_str(), "%u.%u.%u.%u", &a, &b, &c, &d) != 4)
        return dotted;
    const std::uint32_t mask = prefix <= 0 ? 0 : ~std::uint32_t{0} << (32 - std::min(prefix, 32));
    const std::uint32_t network = ((a << 24) | (b << 16) | (c << 8) | d) & mask;
    return std::to_string(network >> 24) + "." + std::to_string(network >> 16 & 255) + "." +
           std::to_string(network >> 8 & 255) + "." + std::to_string(network & 255);
}

} // namespace

Kernel::Kernel(UvLoop &loop, InterfaceGraph &graph)
    : graph_(graph), model_(graph.model()), mending_(loop, [this] { mend(); }),
      netlink_(loop, [this] { mending_.schedule(); }) {
    watch_ = model_.watch("Weft.Intf", [this](const Event &event) { on_event(event); });
    mend();
}

Kernel::~Kernel() {
    model_.unwatch(watch_);
    for (const KernelRoute &route : netlink_.routes())
        netlink_.delete_route(route);
    for (const KernelAddress &address : netlink_.addresses())
        if (address.own)
            netlink_.delete_address(address);
}

void Kernel::on_event(const Event &event) {
    const bool status_alone = event.kind == Event::Kind::Changed && event.values.size() == 1 &&
                              (event.values.contains("Status") || event.values.contains("DHCPStatus"));
    if (status_alone)
        return;
    if (event.kind == Event::Kind::Deleted && event.steps.size() == 5 && event.steps[3] == "IPv4Addr") {
        const KernelLink *link = link_of(event.steps[2]);
        if (link && event.values.contains("Address"))
            netlink_.delete_address({link->index, to_text(event.values.at("Address")),
                                     static_cast<int>(std::get<std::int64_t>(event.values.at("PrefixLen"))), true});
    }
    mending_.schedule();
}

const KernelLink *Kernel::link_of(const std::string &name) const {
    const auto found = std::find_if(links_.begin(), links_.end(), [&](const KernelLink &l) { return l.name == name; });
    return found == links_.end() ? nullptr : &*found;
}

void Kernel::mend() {
    links_ = netlink_.links();
    const std::vector<KernelAddress> addresses = netlink_.addresses();
    const std::vector<KernelRoute> routes = netlink_.routes();
    for (const std::string &name : model_.instances("Weft.Intf")) {
        if (!graph_.has_flag(name, "netdev"))
            continue;
        const KernelLink *link = link_of(name);
        mend_link(name, link);
        const KernelLink none{-1, name, false};
        mend_addresses(name, link ? *link : none, addresses);
        mend_routes(name, link ? *link : none, routes);
    }
}

void Kernel::mend_link(const std::string &name, const KernelLink *link) {
    const bool up = link && link->up;
    if (up != graph_.has_flag(name, "up")) {
        trace(Level::Info, "kernel", "%s is %s", name.c_str(), up ? "up" : "down");
        graph_.set_flag(name, "up", up);
    }
}

void Kernel::mend_addresses(const std::string &name, const KernelLink &link,
                            const std::vector<KernelAddress> &present) {
    const std::string parent = interface_path(name) + ".IPv4Addr";
    std::vector<KernelAddress> unmatched;
    for (const KernelAddress &address : present)
        if (address.link == link.index)
            unmatched.push_back(address);

    for (const std::string &path : graph_.addresses(name)) {
        const std::string text = model_.text(path, "Address");
        const int prefix = static_cast<int>(model_.integer(path, "PrefixLen"));
        const auto found = std::find_if(unmatched.begin(), unmatched.end(), [&](const KernelAddress &a) {
            return a.address == text && a.prefix == prefix;
        });
        const bool there = found != unmatched.end();
        if (model_.text(path, "Origin") == "kernel") {
            if (there)
                unmatched.erase(found);
            else
                model_.remove(path);
            continue;
        }
        if (text.empty() || !model_.boolean(path, "Enable"))
            continue; /* if it is there, it goes below */
        if (there) {
            unmatched.erase(found);
            write(model_, path, {{"Status", std::string("Enabled")}});
        } else {
            keep_secondaries(name);
            report(path, text + "/" + std::to_string(prefix),
                   link.index < 0 ? "no such device" : netlink_.add_address(link, text, prefix));
        }
    }
    for (const KernelAddress &address : unmatched) {
        if (address.own)
            netlink_.delete_address(address);
        else
            model_.add(parent, std::nullopt,
                       {{"Address", address.address},
                        {"PrefixLen", std::int64_t{address.prefix}},
                        {"Origin", std::string("kernel")},
                        {"Status", std::string("Enabled")}});
    }
}

void Kernel::mend_routes(const std::string &name, const KernelLink &link, const std::vector<KernelRoute> &present) {
    const std::string parent = interface_path(name) + ".IPv4Route";
    std::vector<KernelRoute> unmatched;
    for (const KernelRoute &route : present)
        if (route.link == link.index)
            unmatched.push_back(route);

    std::vector<std::pair<std::string, KernelRoute>> missing;
    for (const std::string &instance : model_.instances(parent)) {
        const std::string path = parent + "." + instance;
        if (!model_.boolean(path, "Enable"))
            continue;
        const int prefix = static_cast<int>(model_.integer(path, "DstLen"));
        const KernelRoute wanted{link.index, network_of(model_.text(path, "Dst"), prefix), prefix,
                                 model_.text(path, "Gateway")};
        const auto found = std::find(unmatched.begin(), unmatched.end(), wanted);
        if (found == unmatched.end()) {
            missing.emplace_back(path, wanted);
            continue;
        }
        unmatched.erase(found);
        write(model_, path, {{"Status", std::string("Enabled")}});
    }
    for (const KernelRoute &route : unmatched) /* first, so that one may take another's place */
        netlink_.delete_route(route);
    for (const auto &[path, route] : missing)
        report(path, route.destination + "/" + std::to_string(route.prefix) + " via " + route.gateway,
               link.index < 0 ? "no such device" : netlink_.add_route(route));
}

/* Writes the outcome; a refusal is traced once, when it is news. */
void Kernel::report(const std::string &path, const std::string &what, const std::string &error) {
    const std::string status = error.empty() ? "Enabled" : "error";
    if (!error.empty() && model_.text(path, "Status") != status)
        trace(Level::Warning, "kernel", "%s: %s refused: %s", path.c_str(), what.c_str(), error.c_str());
    write(model_, path, {{"Status", status}});
}

} // namespace keel

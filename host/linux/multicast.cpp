#include "host/linux/multicast.h"

#include <arpa/inet.h>
#include <ifaddrs.h>

#include <filesystem>

#include "host/base/trace.h"
#include "host/base/whole_file.h"
#include "host/gateway/graph.h"

namespace keel {

namespace {

constexpr const char *switches_path = "TIDE.Intf.iptv";
constexpr std::uint64_t runs_ms = 60000; /* a daemon that has run for so long does run */

/* The name by which igmpproxy knows the device of an address: the address's label, which is not the device's name
 * when somebody gave it one of its own. "" when the kernel does not hold the address. */
std::string label_of(const std::string &device, const std::string &address) {
    ifaddrs *list = nullptr;
    in_addr wanted{};
    if (inet_pton(AF_INET, address.c_str(), &wanted) != 1 || getifaddrs(&list) != 0)
        return "";
    std::string label;
    for (const ifaddrs *one = list; one && label.empty(); one = one->ifa_next) {
        if (!one->ifa_addr || one->ifa_addr->sa_family != AF_INET)
            continue;
        const std::string name = one->ifa_name;
        const auto *held = reinterpret_cast<const sockaddr_in *>(one->ifa_addr);
        if (held->sin_addr.s_addr == wanted.s_addr && device.starts_with(name.substr(0, name.find(':'))))
            label = name;
    }
    freeifaddrs(list);
    return label;
}

} // namespace

Multicast::Multicast(UvLoop &loop, InterfaceGraph &graph, std::string igmpproxy, const std::string &folder)
    : loop_(loop), graph_(graph), model_(graph.model()), igmpproxy_(std::move(igmpproxy)),
      file_(std::filesystem::path(folder) / "igmpproxy.conf"),
      switches_(loop, model_, switches_path, [this] { follow(); },
                {{"ClientEnable", "MRTIIFEnable", "WANEnable"}, false}),
      interfaces_(loop, graph, [this](const GraphWatch::Names &) { follow(); }) {
    switches_.schedule();
}

Multicast::~Multicast() {
    loop_.cancel_timer(restart_);
    process_.reset();
    set_status("Stopped");
}

/* With the address that is in use already, as long as the device holds it. */
Multicast::Side Multicast::side(const std::string &device, const Side &used) const {
    Side found{device, ""};
    for (const std::string &path : graph_.addresses(device)) {
        if (!model_.boolean(path, "Enable") || model_.text(path, "Status") != "Enabled")
            continue; /* the kernel does not hold it */
        const std::string address = model_.text(path, "Address");
        if (found.address.empty() || Side{device, address} == used)
            found.address = address;
    }
    return found;
}

std::optional<Multicast::Setup> Multicast::wanted() const {
    for (const char *name : {"ClientEnable", "MRTIIFEnable", "WANEnable"})
        if (!model_.boolean(switches_path, name))
            return std::nullopt;
    const std::string device = graph_.netdev_below("iptv");
    if (!graph_.has_flag(device, "up") || !graph_.has_flag(device, "ipv4"))
        return std::nullopt;
    const auto bridges = graph_.with_flag("bridge");
    if (bridges.empty())
        return std::nullopt;
    const std::string &bridge = bridges.front();
    const Setup setup{side(device, used_.upstream), side(bridge, used_.downstream)};
    if (setup.upstream.address.empty() || setup.downstream.address.empty())
        return std::nullopt;
    return setup;
}

void Multicast::follow() {
    const std::optional<Setup> setup = wanted();
    if (process_) {
        if (setup != used_ && !killed_) { /* the next one needs the kernel's routing table, which has one owner */
            killed_ = true;
            process_->kill();
        }
    } else if (!setup) {
        loop_.cancel_timer(restart_);
        restart_ = 0;
        pause_.reset();
        set_status("Stopped");
    } else if (!restart_) {
        start(*setup);
    }
}

void Multicast::start(const Setup &setup) {
    used_ = setup;
    killed_ = false;
    const std::string upstream = label_of(setup.upstream.device, setup.upstream.address);
    const std::string downstream = label_of(setup.downstream.device, setup.downstream.address);
    if (upstream.empty() || downstream.empty()) {
        failed("the kernel does not hold its addresses");
        return;
    }
    std::string error;
    if (!write_whole_file(file_, configuration(upstream, downstream), &error)) {
        failed("its configuration file cannot be written: " + error);
        return;
    }
    process_ = Child::start(
        loop_, {igmpproxy_, "-n", file_}, nullptr, [this](int status) { ended(status); }, &error);
    started_ms_ = loop_.now_ms();
    if (process_)
        set_status("Running");
    else
        failed("it cannot be started: " + error);
}

std::string Multicast::configuration(const std::string &upstream, const std::string &downstream) const {
    std::string text = "quickleave\n";
    text += "phyint " + upstream + " upstream ratelimit 0 threshold 1\n";
    text += "    altnet 0.0.0.0/0\n";
    text += "phyint " + downstream + " downstream ratelimit 0 threshold 1\n";
    for (const std::string &name : graph_.with_flag("netdev"))
        if (name != used_.upstream.device && name != used_.downstream.device)
            text += "phyint " + name + " disabled\n";
    return text;
}

void Multicast::ended(int status) {
    process_.reset();
    if (killed_)
        follow();
    else
        failed("it ended with status " + std::to_string(status));
}

void Multicast::failed(const std::string &reason) {
    if (started_ms_ != 0 && loop_.now_ms() - started_ms_ >= runs_ms)
        pause_.reset();
    started_ms_ = 0;
    if (!pause_.is_failing())
        trace(Level::Error, "multicast", "%s: %s; it is started again", igmpproxy_.c_str(), reason.c_str());
    set_status("Error");
    restart_ = loop_.start_timer(pause_.next_ms(), [this] {
        restart_ = 0;
        follow();
    });
}

void Multicast::set_status(const char *status) {
    if (model_.text(switches_path, "Status") != status && model_.get(switches_path, "Since"))
        model_.set(switches_path, {{"Since", static_cast<std::int64_t>(loop_.wall_clock_s())}});
    model_.set(switches_path, {{"Status", std::string(status)}});
    if (model_.get(switches_path, "Process"))
        model_.set(switches_path, {{"Process", std::int64_t{process_ ? process_->pid() : 0}}});
}

} // namespace keel

#include "host/linux/wan_clients.h"

#include <algorithm>

#include "host/base/trace.h"
namespace keel {

namespace {
constexpr std::uint64_t restart_delay_ms = 2000; /* of a client that ended by itself */
constexpr std::uint64_t start_gap_ms = 25;       /* between the starts of two clients */
} // namespace

WanClients::WanClients(UvLoop &loop, InterfaceGraph &graph, std::string udhcpc, std::string report_script)
    : loop_(loop), model_(graph.model()), udhcpc_(std::move(udhcpc)), script_(std::move(report_script)),
      wanted_(
          loop, graph,
          [this](const std::string &name, const std::string &device) {
              auto &client = clients_[name] = std::make_unique<Client>();
              client->device = device;
              start_later(name, *client, 0);
          },
          [this](const std::string &name) { stop(name); }) {}

WanClients::~WanClients() {
    while (!clients_.empty()) {
        const std::string name = clients_.begin()->first; /* the one in the map goes with its client */
        stop(name);
    }
}

void WanClients::start(const std::string &name, Client &client) {
    const std::string path = interface_path(name);
    UdhcpcSettings settings;
    settings.program = udhcpc_;
    settings.script = script_;
    settings.interface = client.device;
    settings.client_id = model_.text(path + ".SentOption.61", "Value");
    settings.vendor_class = model_.text(path + ".MIB.dhcp", "VendorClass");
    settings.requested_options = split_words(model_.text(path + ".MIB.dhcp", "RequestedOptions"));
    settings.last_address = model_.text(path, "IPAddress");
    std::string error;
    client.process = Child::start(
        loop_, udhcpc_command(settings),
        [this, name, &client](const std::string &line) { take(name, client.reader.take(line)); },
        [this, name](int status) { ended(name, status); }, &error);
    if (!client.process) {
        trace(Level::Error, "wan", "%s: %s cannot be started: %s", name.c_str(), udhcpc_.c_str(), error.c_str());
        ended(name, 0);
    }
}

void WanClients::stop(const std::string &name) {
    const auto found = clients_.find(name);
    if (found->second->restart)
        loop_.cancel_timer(found->second->restart);
    clients_.erase(found);
    if (model_.find(interface_path(name)))
        set_wan_status(model_, name, "Idle");
}

void WanClients::take(const std::string &name, const UdhcpcReport &report) {
    switch (report.kind) {
    case UdhcpcReport::Kind::Selecting:
        set_wan_status(model_, name, "Selecting");
        break;
    case UdhcpcReport::Kind::Requesting:
        set_wan_status(model_, name, "Requesting");
        break;
    case UdhcpcReport::Kind::Renewing:
        set_wan_status(model_, name, "Renewing");
        break;
    case UdhcpcReport::Kind::Rebinding:
        set_wan_status(model_, name, "Rebinding");
        break;
    case UdhcpcReport::Kind::Bound:
        set_wan_bound(model_, name, report.lease.address, report.lease.mask, report.lease.options);
        break;
    case UdhcpcReport::Kind::Nak:
        set_wan_nak(model_, name);
        break;
    default:
        break;
    }
}

void WanClients::ended(const std::string &name, int status) {
    const auto found = clients_.find(name);
    if (found == clients_.end())
        return;
    trace(Level::Warning, "wan", "%s: its DHCP client ended with status %d; it is started again", name.c_str(), status);
    set_wan_status(model_, name, "Idle");
    start_later(name, *found->second, restart_delay_ms);
}

/* udhcpc draws its transaction ids from the instant of its start, and all clients of a device have its MAC address: two
 * that started together would take each other's leases. */
void WanClients::start_later(const std::string &name, Client &client, std::uint64_t delay_ms) {
    latest_start_ms_ = std::max(loop_.now_ms() + delay_ms, latest_start_ms_ + start_gap_ms);
    client.restart = loop_.start_timer(latest_start_ms_ - loop_.now_ms(), [this, name] {
        const auto found = clients_.find(name);
        if (found == clients_.end())
            return;
        found->second->restart = 0;
        found->second->reader = {};
        start(name, *found->second);
    });
}

} // namespace keel

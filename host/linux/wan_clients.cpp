#include "host/linux/wan_clients.h"

#include "host/base/trace.h"
namespace keel {

namespace {
constexpr std::uint64_t restart_delay_ms = 2000; /* of a client that ended by itself */
constexpr std::uint64_t start_limit_ms = 500;    /* for one that does not tell that it has started */
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
    waiting_.clear();
    loop_.cancel_timer(start_limit_);
    while (!clients_.empty()) {
        const std::string name = clients_.begin()->first; /* the one in the map goes with its client */
        stop(name);
    }
}

void WanClients::start_later(const std::string &name, Client &client, std::uint64_t delay_ms) {
    const auto enqueue = [this, name] {
        waiting_.push_back(name);
        start_next();
    };
    if (delay_ms == 0)
        enqueue();
    else
        client.restart = loop_.start_timer(delay_ms, [this, name, enqueue] {
            clients_.at(name)->restart = 0;
            enqueue();
        });
}

/* udhcpc draws its transaction ids from the microsecond of its start, and all clients of a device have its MAC address:
 * two that drew the same would take each other's leases. So one starts after the other, and not before that one has run
 * its script for the first time, which comes after the draw. */
void WanClients::start_next() {
    while (starting_.empty() && !waiting_.empty()) {
        const std::string name = std::move(waiting_.front());
        waiting_.pop_front();
        starting_ = name;
        start_limit_ = loop_.start_timer(start_limit_ms, [this, name] { has_started(name); });
        start(name, *clients_.at(name));
    }
}

void WanClients::has_started(const std::string &name) {
    if (name != starting_)
        return;
    starting_.clear();
    loop_.cancel_timer(start_limit_);
    start_next();
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
    client.reader = {};
    std::string error;
    client.process = Child::start(
        loop_, udhcpc_command(settings),
        [this, name, &client](const std::string &line) { take(name, client.reader.take(line)); },
        [this, name](int status) {
            trace(Level::Warning, "wan", "%s: its DHCP client ended with status %d; it is started again", name.c_str(),
                  status);
            start_again(name);
        },
        &error);
    if (client.process)
        return;
    trace(Level::Error, "wan", "%s: %s cannot be started: %s; it is tried again", name.c_str(), udhcpc_.c_str(),
          error.c_str());
    start_again(name);
}

void WanClients::stop(const std::string &name) {
    const auto found = clients_.find(name);
    if (found->second->restart)
        loop_.cancel_timer(found->second->restart);
    clients_.erase(found);
    std::erase(waiting_, name);
    if (model_.find(interface_path(name)))
        set_wan_status(model_, name, "Idle");
    has_started(name);
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
    case UdhcpcReport::Kind::Lost:
        has_started(name);
        break;
    default:
        break;
    }
}

void WanClients::start_again(const std::string &name) {
    set_wan_status(model_, name, "Idle");
    start_later(name, *clients_.at(name), restart_delay_ms);
    has_started(name);
}

} // namespace keel

#include "host/linux/wan_clients.h"

#include <algorithm>
#include <utility>

#include "host/base/trace.h"
#include "host/dhcp/dhcp_note.h"

namespace keel {

namespace {

constexpr std::uint64_t start_limit_ms = 500;     /* for one that does not tell that it has started */
constexpr std::uint64_t spread_ms = 1000;         /* of the next try, either way (RFC 2131, 4.1) */
constexpr std::uint64_t refused_pause_ms = 3000;  /* udhcpc's own, after a NAK */
constexpr std::uint64_t longest_pause_ms = 60000; /* before a program that failed is started again */

} // namespace

WanClients::WanClients(UvLoop &loop, InterfaceGraph &graph, std::string udhcpc, std::string report_script,
                       std::vector<std::string> hidden_files)
    : loop_(loop), model_(graph.model()), show_(loop, graph.model()),
      udhcpc_(std::move(udhcpc)), confinement_{std::move(hidden_files)}, script_(std::move(report_script)),
      random_(std::random_device()()), forgetting_(loop, [this] { forget_unused_devices(); }),
      wanted_(
          loop, graph, [this](const std::string &name, const std::string &device) { add(name, device); },
          [this](const std::string &name) { stop(name); }) {
    if (!confinement_.hidden.empty() && !may_hide_files())
        trace(Level::Warning, "wan", "without CAP_SYS_ADMIN the DHCP clients see the host's store and control socket");
}

WanClients::~WanClients() {
    waiting_.clear();
    loop_.cancel_timer(start_limit_);
    while (!clients_.empty()) {
        const std::string name = clients_.begin()->first; /* the one in the map goes with its client */
        stop(name);
        show_.status(name, "Idle");
    }
}

void WanClients::add(const std::string &name, const std::string &device) {
    auto &client = clients_[name] = std::make_unique<Client>();
    client->device = device;
    auto &packets = devices_[device];
    if (!packets) /* before its clients, so that nothing is missed */
        packets = std::make_unique<WanPackets>(loop_, device,
                                               [this, device](const WanMessage &message) { seen(device, message); });
    start_later(name, 0);
}

/* A device's socket costs the kernel a wait when it is closed: not between a client's end and its next start. */
void WanClients::forget_unused_devices() {
    std::erase_if(devices_, [this](const auto &device) {
        return std::none_of(clients_.begin(), clients_.end(),
                            [&](const auto &client) { return client.second->device == device.first; });
    });
}

void WanClients::start_later(const std::string &name, std::uint64_t delay_ms) {
    const auto enqueue = [this, name] {
        waiting_.push_back(name);
        start_next();
    };
    if (delay_ms == 0)
        enqueue();
    else
        clients_.at(name)->next = loop_.start_timer(delay_ms, [this, name, enqueue] {
            clients_.at(name)->next = 0;
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
    client.client_id = parse_hex(settings.client_id).value_or(Bytes());
    client.xid.reset();
    client.started = false;
    client.said.clear();
    std::string error;
    client.process = Child::start(
        loop_, udhcpc_command(settings), [this, name](const std::string &line) { take(name, line); },
        [this, name](int status) {
            const std::string &said = clients_.at(name)->said;
            program_failed(name, "its DHCP client ended with status " + std::to_string(status) +
                                     (said.empty() ? "" : " (" + said + ")"));
        },
        &error, &confinement_);
    if (!client.process)
        program_failed(name, udhcpc_ + " cannot be started: " + error);
}

void WanClients::stop(const std::string &name) {
    const auto found = clients_.find(name);
    loop_.cancel_timer(found->second->next);
    clients_.erase(found);
    forgetting_.schedule();
    std::erase(waiting_, name);
    has_started(name);
}

/* All clients of a device have its MAC address. What tells them apart is what they send as option 61, and, of what is
 * answered, whose transaction it is. */
void WanClients::seen(const std::string &device, const WanMessage &message) {
    const bool answer = message.kind == WanMessage::Kind::Answer;
    const auto found = std::find_if(clients_.begin(), clients_.end(), [&](const auto &one) {
        const Client &client = *one.second;
        return client.device == device && client.process &&
               (answer ? client.xid == message.xid : client.client_id == message.client_id);
    });
    if (found == clients_.end())
        return;
    const auto &[name, client] = *found;
    note_dhcp(TimelineEvent::Kind::WanDhcp, name, message.payload);
    if (answer) {
        show_.answered(name, format_ipv4(message.server));
        return;
    }
    client->xid = message.xid;
    show_.sent(name);
    if (message.kind != WanMessage::Kind::Discover) /* it has found a server: it must not be started anew */
        loop_.cancel_timer(std::exchange(client->next, 0));
    switch (message.kind) {
    case WanMessage::Kind::Discover:
        show_.status(name, "Selecting");
        break;
    case WanMessage::Kind::Select:
        show_.status(name, client->useless_lease ? "Selecting" : "Requesting");
        break;
    case WanMessage::Kind::Renew:
        show_.status(name, "Renewing");
        break;
    case WanMessage::Kind::Rebind:
        show_.status(name, "Rebinding");
        break;
    default:
        break;
    }
}

/* What led to an event passed the device before the script told it. */
void WanClients::take(const std::string &name, const std::string &line) {
    Client &client = *clients_.at(name);
    const UdhcpcReport report = client.reader.take(line);
    if (!line.starts_with("@"))
        client.said = line;
    if (report.dropped)
        show_.dropped(name);
    if (report.kind == UdhcpcReport::Kind::None)
        return;
    devices_.at(client.device)->take_now();
    take(name, client, report);
}

void WanClients::take(const std::string &name, Client &client, const UdhcpcReport &report) {
    switch (report.kind) {
    case UdhcpcReport::Kind::Bound:
        client.failures = 0;
        loop_.cancel_timer(std::exchange(client.next, 0));
        client.useless_lease = !show_.bound(name, report.lease);
        if (client.useless_lease) {
            client.process.reset(); /* it would sit on that lease until the end of it */
            try_later(name, client, 0);
        } else {
            client.tries = 0;
        }
        break;
    case UdhcpcReport::Kind::Nak:
        show_.nak(name, report.server);
        show_.next_try_in(name, refused_pause_ms);
        break;
    case UdhcpcReport::Kind::Deconfig:
        if (std::exchange(client.started, true))
            show_.status(name, "Selecting"); /* what it had is lost, and it goes on looking */
        has_started(name);
        break;
    case UdhcpcReport::Kind::Leasefail:
        client.failures = 0;
        show_.failed(name, "no answer");
        try_later(name, client, std::uint64_t{udhcpc_answer_s} * 1000);
        break;
    default:
        break;
    }
}

/* The wait counts from the beginning of the try that was in vain. */
void WanClients::try_later(const std::string &name, Client &client, std::uint64_t since_ms) {
    const std::uint64_t wait = wan_retry_ms(++client.tries) - spread_ms + random_() % (2 * spread_ms + 1);
    const std::uint64_t left = wait - std::min(wait, since_ms);
    loop_.cancel_timer(client.next);
    client.next = loop_.start_timer(left, [this, name] { try_again(name); });
    show_.next_try_in(name, left);
}

void WanClients::try_again(const std::string &name) {
    Client &client = *clients_.at(name);
    devices_.at(client.device)->take_now();
    if (client.next == 0) /* an offer has come at last */
        return;
    client.next = 0;
    client.process.reset();
    start_later(name, 0);
}

/* It goes on looking as far as anybody can see: what an STB is told meanwhile depends on that. */
void WanClients::program_failed(const std::string &name, const std::string &what) {
    Client &client = *clients_.at(name);
    client.process.reset();
    loop_.cancel_timer(std::exchange(client.next, 0));
    if (client.failures++ == 0)
        trace(Level::Error, "wan", "%s: %s; it is tried again", name.c_str(), what.c_str());
    const std::uint64_t pause = std::min(std::uint64_t{1000} << std::min(client.failures, 6U), longest_pause_ms);
    show_.failed(name, what);
    show_.status(name, "Selecting");
    show_.next_try_in(name, pause);
    start_later(name, pause);
    has_started(name);
}

} // namespace keel

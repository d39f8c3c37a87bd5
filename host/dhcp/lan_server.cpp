#include "host/dhcp/lan_server.h"

#include <algorithm>

#include "host/base/trace.h"
#include "host/dhcp/dhcp_note.h"
#include "host/dhcp/sender.h"

namespace keel {

namespace {

constexpr std::uint64_t report_again_ms = 120000; /* a device that is still held, and still asks */
/* How long a device has to tell that it uses an address: the one that is offered it waits for so long. On a wire an
 * answer takes less than 1 ms; a sleeping wireless device may need longer than this, and is heard as long as the lease
 * is on hold. */
constexpr std::uint64_t probe_ms = 60;
constexpr std::uint64_t offer_valid_s = 60; /* how long an offered address waits for its request */
constexpr std::uint32_t broadcast_address = 0xffffffff;

enum : std::uint8_t {
    option_mask = 1,
    option_router = 3,
    option_lease_time = 51,
    option_renewal = 58,
    option_rebinding = 59
};

std::string lease_path(const LanRule &rule, const std::string &id) {
    return rule.path + ".Lease." + id;
}

} // namespace

LanDhcpServer::LanDhcpServer(Loop &loop, Model &model, LanPort &port)
    : loop_(loop), model_(model), port_(port), pools_(model), leases_(model), forgotten_(model),
      addresses_(loop, model, pools_, leases_), ends_(loop, model, leases_), waiting_(loop, model), reports_(loop),
      start_(model.latest_event()), start_ms_(loop.now_ms()) {
    watch_ = model_.watch(lan_pools_path, [this](const Event &event) { on_event(event); });
}

LanDhcpServer::~LanDhcpServer() {
    model_.unwatch(watch_);
}

/* Whatever strangers can make up goes into the latest, not into the reason: these are few and kept. */
void LanDhcpServer::drop(const std::string &reason, const std::string &latest) {
    const std::uint64_t count = ++dropped_[reason];
    if ((count & (count - 1)) == 0) /* the 1st, 2nd, 4th, 8th ... */
        trace(Level::Warning, "lan", "dropped DHCP messages (%s%s): %llu", reason.c_str(), latest.c_str(),
              static_cast<unsigned long long>(count));
}

/* ------------------------------------------------------------------------------------------------- messages */

void LanDhcpServer::received(const std::uint8_t *data, std::size_t size) {
    DhcpMessage message;
    std::string error;
    if (!parse_dhcp(data, size, &message, &error)) {
        drop(error);
        return;
    }
    note_dhcp(TimelineEvent::Kind::LanDhcp, format_mac(message.hardware.data()), Bytes(data, data + size));
    const std::string id = sender_id(message);
    const LanRule *rule = rule_for(message, id);
    if (!rule) {
        drop(message.relay ? "through a relay in no pool's subnet" : "no pool for the device");
        return;
    }
    const Request request_of{message, *rule, id, lease_path(*rule, id)};
    switch (message.type) {
    case DhcpType::Discover:
        discover(request_of);
        break;
    case DhcpType::Request:
        request(request_of);
        break;
    case DhcpType::Release:
        release(request_of, false);
        break;
    case DhcpType::Decline:
        release(request_of, true);
        break;
    case DhcpType::Inform:
        inform(request_of);
        break;
    default:
        drop("a server's message");
    }
}

/* A device that does not tell its vendor class, or one that no rule knows, belongs where its lease is: DECLINE and
 * RELEASE never tell it (RFC 2131, table 5), and some devices tell it in their DISCOVER alone. */
const LanRule *LanDhcpServer::rule_for(const DhcpMessage &message, const std::string &id) {
    const std::uint32_t link = pools_.link_of(message.relay, message.client_address);
    const LanRule *rest = nullptr;
    for (const LanPool &pool : pools_.all()) {
        if (!pool.is_of_link(link))
            continue;
        for (const LanRule &rule : pool.rules) {
            if (rule.vendor_class.empty())
                rest = rest ? rest : &rule;
            else if (message.vendor_class.starts_with(rule.vendor_class))
                return &rule;
        }
    }
    for (const auto &[path, place] : leases_.leases_of(id)) {
        const LanRule *rule = is_of(path, message) ? pools_.rule(place.pool, place.rule) : nullptr;
        if (rule && rule->pool->is_of_link(link))
            return rule;
    }
    return rest;
}

/* The rule below which the lease of that name is; null when its pool is not in use. */
const LanRule *LanDhcpServer::rule_of_lease(const std::string &id, const std::string &lease) {
    for (const auto &[path, place] : leases_.leases_of(id))
        if (path == lease)
            return pools_.rule(place.pool, place.rule);
    return nullptr;
}

/* Whether the lease is the sender's: an identifier alone can be anybody's. */
bool LanDhcpServer::is_of(const std::string &lease, const DhcpMessage &message) const {
    return model_.text(lease, "MACAddress") == format_mac(message.hardware.data());
}

/* The address of the sender's lease; 0 when it has none, or one that is of no use since somebody has changed the
 * subnet. */
std::uint32_t LanDhcpServer::leased_to(const Request &request) {
    const bool own = model_.find(request.lease) && is_of(request.lease, request.message);
    const std::uint32_t address = own ? ipv4_or_none(model_.text(request.lease, "IPAddress")) : 0;
    return request.rule.pool->has_in_subnet(address) && !pools_.is_own(address) ? address : 0;
}

void LanDhcpServer::discover(const Request &request) {
    if (leased_to(request) != 0)
        park_or_answer(request, DhcpType::Offer);
    else
        begin_lease(request);
}

void LanDhcpServer::request(const Request &request) {
    const LanPool &pool = *request.rule.pool;
    if (request.message.server_id != 0 && request.message.server_id != pool.server)
        return; /* it took another server's offer */
    const std::uint32_t wanted = wanted_address(request.message);
    const bool known = model_.find(request.lease) != nullptr;
    if (wanted != 0 && leased_to(request) == wanted)
        park_or_answer(request, DhcpType::Ack);
    /* A device that comes back with an address that is free is given it; any other must begin anew. */
    else if (!known && wanted >= request.rule.low && wanted <= request.rule.high &&
             addresses_.is_free_for(request.id, wanted))
        begin_lease(request);
    else
        answer(request.message, pool, {DhcpType::Nak, 0, 0, {}});
}

void LanDhcpServer::release(const Request &request, bool declined) {
    const DhcpMessage &message = request.message;
    const std::uint32_t address = declined ? message.requested_address : message.client_address;
    if (!model_.find(request.lease) || !is_of(request.lease, message) || address == 0 ||
        ipv4_or_none(model_.text(request.lease, "IPAddress")) != address)
        return;
    if (declined) {
        trace(Level::Warning, "lan", "%s is in use by another device, says %s; it is set aside",
              format_ipv4(address).c_str(), format_mac(message.hardware.data()).c_str());
        addresses_.set_aside(address);
    }
    model_.remove(request.lease);
}

void LanDhcpServer::inform(const Request &request) {
    if (request.message.client_address == 0)
        drop("INFORM without an address");
    else
        answer(request.message, *request.rule.pool, {DhcpType::Ack, 0, 0, {}});
}

/* ----------------------------------------------------------------------------------------------- new leases */

void LanDhcpServer::begin_lease(const Request &request) {
    if (identifier_is_in_use(request) || (request.rule.pool->on_hold && !may_be_reported(request)))
        return;
    drop_leases_before(request);
    const std::uint32_t address = addresses_.choose(
        request.rule, request.id, {request.message.requested_address, request.message.client_address});
    if (address == 0) {
        drop("the range of " + request.rule.path + " is used up");
        wait_without_lease(request, "no address is free", "");
        return;
    }
    if (!report_lease(request, address, false))
        return;
    if (!waiting_.keep(request.id, request.lease, true, request.message)) {
        drop("too many devices wait");
        return;
    }
    waiting_.find(request.id)->reported_ms = loop_.now_ms();
    park(request);
    probe(request.id, address);
}

/* Whoever watches the pool is told of a device that is there, and of a flood of them not more than a few: what is set
 * up for each of them is taken from the others. */
bool LanDhcpServer::may_be_reported(const Request &request) {
    const DhcpMessage &message = request.message;
    const std::string port =
        message.relay ? "the relay " + format_ipv4(message.relay) : port_.port_of(message.hardware);
    if (port.empty()) {
        wait_without_lease(request, "its MAC address was not seen behind a port of the LAN", port);
        count("not seen behind a port");
        reports_.refuse_unseen(format_mac(message.hardware.data()));
    } else if (!reports_.takes(port, request.id)) {
        wait_without_lease(request, "too many new devices came behind its port", port);
        count("too many new devices behind a port");
    } else {
        return true;
    }
    return false;
}

void LanDhcpServer::wait_without_lease(const Request &request, const std::string &reason, const std::string &port) {
    if (waiting_.keep(request.id, request.lease, false, request.message))
        waiting_.because(request.id, reason, port);
}

/* An identifier that comes from another MAC address, in whatever pool: the device has got another network card, or
 * there are two with the same identifier. The one that has the lease keeps it while it is on the LAN. */
bool LanDhcpServer::identifier_is_in_use(const Request &request) {
    for (const auto &[path, place] : leases_.leases_of(request.id)) {
        const std::string owner = model_.text(path, "MACAddress");
        const auto hardware = parse_mac(owner);
        if (!hardware || *hardware == request.message.hardware || port_.port_of(*hardware).empty())
            continue;
        drop("two devices on the LAN have the same client identifier",
             "; at last " + format_mac(request.message.hardware.data()) + " that of " + owner);
        const auto &own = request.message.hardware; /* which its identifier would be without option 61 */
        wait_without_lease({request.message, request.rule, "01" + format_hex({own.begin(), own.end()}), ""},
                           "its client identifier is that of " + owner, port_.port_of(own));
        return true;
    }
    return false;
}

/* A device that turns up as another kind, or with another network card, leaves its lease of before. */
void LanDhcpServer::drop_leases_before(const Request &request) {
    for (const auto &[path, place] : leases_.leases_of(request.id)) {
        if (!is_of(path, request.message))
            trace(Level::Info, "lan", "%s takes over the lease %s of %s, which is not on the LAN",
                  format_mac(request.message.hardware.data()).c_str(), request.id.c_str(),
                  model_.text(path, "MACAddress").c_str());
        model_.remove(path);
    }
}

bool LanDhcpServer::add_lease(const LanRule &rule, const std::string &id, const Values &values) {
    const Outcome refusal = model_.add(rule.path + ".Lease", id, values);
    if (refusal)
        trace(Level::Error, "lan", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
    return !refusal;
}

bool LanDhcpServer::report_lease(const Request &request, std::uint32_t address, bool acknowledged) {
    const auto now = static_cast<std::int64_t>(loop_.wall_clock_s());
    Values values = description_of_sender(request.message);
    values["ClientID"] = request.id;
    values["IPAddress"] = format_ipv4(address);
    values["MACAddress"] = format_mac(request.message.hardware.data());
    values["OnHold"] = request.rule.pool->on_hold;
    values["Acknowledged"] = acknowledged;
    values["Expires"] = now + static_cast<std::int64_t>(offer_valid_s);
    values["Written"] = now;
    if (!add_lease(request.rule, request.id, values))
        return false;
    ends_.lasts(request.lease, offer_valid_s);
    return true;
}

/* -------------------------------------------------------------------------------------------------- probing */

void LanDhcpServer::probe(const std::string &id, std::uint32_t address) {
    WaitingDevice *device = waiting_.find(id);
    loop_.cancel_timer(device->probe);
    device->probe = loop_.start_timer(probe_ms, [this, id] { probed(id); });
    port_.probe(address);
}

void LanDhcpServer::probed(const std::string &id) {
    WaitingDevice *device = waiting_.find(id);
    device->probe = 0;
    if (!model_.boolean(device->lease, "OnHold"))
        answer_waiting(id);
}

/* The device that waits for the address gets another one. */
void LanDhcpServer::address_used(std::uint32_t address, const HardwareAddress &by) {
    const std::string lease = leases_.lease_with(address);
    if (lease.empty() || model_.text(lease, "MACAddress") == format_mac(by.data()))
        return;
    const std::string id = model_.text(lease, "ClientID");
    WaitingDevice *device = waiting_.find(id);
    if (!device || device->lease != lease)
        return;
    trace(Level::Warning, "lan", "%s is in use by %s, which has no lease for it; %s is given another address",
          format_ipv4(address).c_str(), format_mac(by.data()).c_str(), id.c_str());
    addresses_.set_aside(address);
    const LanRule *rule = rule_of_lease(id, lease);
    const std::uint32_t other = rule ? addresses_.choose(*rule, id, {}) : 0;
    if (other == 0) {
        model_.remove(lease);
        return;
    }
    model_.set(lease, {{"IPAddress", format_ipv4(other)}});
    probe(id, other);
}

/* ------------------------------------------------------------------------------------------ holds and answers */

/* Of a device that has a lease. */
void LanDhcpServer::park_or_answer(const Request &request, DhcpType type) {
    model_.set(request.lease, description_of_sender(request.message));
    const WaitingDevice *device = waiting_.find(request.id);
    if (!model_.boolean(request.lease, "OnHold") && !(device && device->probe))
        answer_lease(request, type);
    else if (waiting_.keep(request.id, request.lease, true, request.message))
        park(request);
    else
        drop("too many devices wait");
}

/* The device waits; its later requests take the place of the earlier one, and keep its lease from expiring. */
void LanDhcpServer::park(const Request &request) {
    WaitingDevice &device = *waiting_.find(request.id);
    if (device.reported_ms == 0) /* its lease is from before the hold, and was reported with it */
        device.reported_ms = held_ms_.try_emplace(request.rule.pool->name, start_ms_).first->second;
    ends_.outlasts(request.lease, offer_valid_s); /* as long as its device may take to ask again */
    if (!model_.boolean(request.lease, "OnHold"))
        return;
    if (!device.told)
        waiting_.because(request.id, "on hold since it was reported", port_.port_of(request.message.hardware));
    const std::uint64_t again_ms = device.reported_ms + report_again_ms;
    if (again_ms <= loop_.now_ms())
        report_again(request.id);
    else if (device.look == 0) /* it may not ask once more for hours */
        device.look = loop_.start_timer(again_ms - loop_.now_ms(), [this, id = request.id] {
            WaitingDevice &waiting = *waiting_.find(id);
            waiting.look = 0;
            if (waiting.asked_ms > waiting.reported_ms && model_.boolean(waiting.lease, "OnHold") &&
                (waiting.message.relay != 0 || !port_.port_of(waiting.message.hardware).empty()))
                report_again(id);
        });
}

/* Whoever refused it may think otherwise by now. */
void LanDhcpServer::report_again(const std::string &id) {
    const std::uint64_t now = loop_.now_ms();
    waiting_.find(id)->reported_ms = now;
    const WaitingDevice waiting = *waiting_.find(id);
    const LanRule *rule = rule_of_lease(id, waiting.lease);
    if (!rule)
        return;
    const std::uint32_t address = ipv4_or_none(model_.text(waiting.lease, "IPAddress"));
    const bool acknowledged = model_.boolean(waiting.lease, "Acknowledged");
    const std::uint64_t end = std::max(leases_.end_of(waiting.lease).value_or(now), now + offer_valid_s * 1000);
    model_.remove(waiting.lease);
    if (!report_lease({waiting.message, *rule, id, waiting.lease}, address, acknowledged))
        return;
    ends_.lasts(waiting.lease, (end - now) / 1000);
    waiting_.because(id, "still on hold two minutes after it was reported", port_.port_of(waiting.message.hardware));
}

void LanDhcpServer::report_lease_with(std::uint32_t address) {
    const std::string lease = leases_.lease_with(address);
    const std::string id = model_.text(lease, "ClientID");
    const LanRule *rule = lease.empty() ? nullptr : rule_of_lease(id, lease);
    if (!rule || model_.boolean(lease, "OnHold"))
        return;
    const std::uint64_t now = loop_.now_ms();
    const std::uint64_t end = std::max(leases_.end_of(lease).value_or(now), now);
    Values values = model_.find(lease)->values();
    values["OnHold"] = rule->pool->on_hold;
    model_.remove(lease);
    if (!add_lease(*rule, id, values))
        return;
    ends_.lasts(lease, (end - now) / 1000);
}

/* As things stand now; the lease stays where it is, whatever the rules say of the device by now. */
void LanDhcpServer::answer_waiting(const std::string &id) {
    const WaitingDevice waiting = *waiting_.find(id);
    const DhcpMessage &message = waiting.message;
    if (const LanRule *rule = rule_of_lease(id, waiting.lease)) {
        const bool asks_for_another = message.type == DhcpType::Request &&
                                      ipv4_or_none(model_.text(waiting.lease, "IPAddress")) != wanted_address(message);
        if (asks_for_another)
            answer(message, *rule->pool, {DhcpType::Nak, 0, 0, {}});
        else
            answer_lease({message, *rule, id, waiting.lease},
                         message.type == DhcpType::Request ? DhcpType::Ack : DhcpType::Offer);
    }
    waiting_.erase(id);
}

void LanDhcpServer::answer_lease(const Request &request, DhcpType type) {
    waiting_.erase(request.id);
    const std::uint32_t time = request.rule.pool->lease_time(request.message.lease_time);
    DhcpReply reply{type, ipv4_or_none(model_.text(request.lease, "IPAddress")), 0, {}};
    reply.options[option_lease_time] = network_bytes(time);
    reply.options[option_renewal] = network_bytes(time / 2);
    reply.options[option_rebinding] = network_bytes(time / 8 * 7);
    if (type == DhcpType::Ack) {
        ends_.lasts(request.lease, time, {{"Acknowledged", true}}); /* and is stored from now on */
    } else {
        ends_.outlasts(request.lease, offer_valid_s);
    }
    answer(request.message, *request.rule.pool, std::move(reply));
}

void LanDhcpServer::answer(const DhcpMessage &message, const LanPool &pool, DhcpReply reply) {
    reply.server = pool.server;
    if (reply.type != DhcpType::Nak) {
        reply.options[option_mask] = network_bytes(pool.mask);
        reply.options[option_router] = network_bytes(pool.router);
        for (const auto &[tag, value] : pool.options)
            reply.options[tag] = value;
    }
    /* RFC 2131, 4.1: to the relay, to the address that the client has, else to the one it gets, else to all */
    DhcpDestination destination{message.hardware, broadcast_address, pool.server};
    if (message.relay != 0) {
        destination.address = message.relay;
        destination.relay = destination.routed = true;
    } else if (reply.type == DhcpType::Nak || (message.client_address == 0 && message.broadcast)) {
        destination.hardware.fill(0xff);
    } else {
        destination.address = message.client_address ? message.client_address : reply.your_address;
        destination.routed = !pool.has_in_subnet(pool.server); /* it is behind a relay, and asks past it */
    }
    const Bytes bytes = build_dhcp_reply(message, reply);
    note_dhcp(TimelineEvent::Kind::LanDhcp, format_mac(message.hardware.data()), bytes);
    port_.send(bytes, destination);
}

/* --------------------------------------------------------------------------------------------------- events */

void LanDhcpServer::on_event(const Event &event) {
    const std::string path = event.path();
    if (is_of_lease(event)) {
        const WaitingDevice *device = waiting_.find(event.steps.back());
        const bool waits = device && device->lease == path && device->reported;
        const bool there = model_.find(path) != nullptr;
        if (event.kind == Event::Kind::Deleted && waits && !there)
            waiting_.erase(event.steps.back());
        if (event.kind == Event::Kind::Deleted || !there)
            return;
        ends_.changed(path, event);
        if (waits && !device->probe && event.values.contains("OnHold") && !model_.boolean(path, "OnHold", true))
            answer_waiting(event.steps.back());
    } else if (event.steps.size() == 4 && event.kind == Event::Kind::Changed && event.values.contains("LeasesOnHold") &&
               event.number > start_) {
        hold_pool(event.steps[3], model_.boolean(path, "LeasesOnHold"));
    }
}

/* Leases from before the holds are held, too, so that whoever watches the pool decides on each of them; the devices
 * have them all the same. At the start they stay as they were: they have been decided on. */
void LanDhcpServer::hold_pool(const std::string &pool, bool on) {
    held_ms_[pool] = loop_.now_ms();
    const std::string rules = join_path(lan_pools_path, pool) + ".Rule";
    for (const std::string &number : model_.instances(rules)) {
        const std::string leases = join_path(rules, number) + ".Lease";
        for (const std::string &id : model_.instances(leases))
            model_.set(join_path(leases, id), {{"OnHold", on}});
    }
}

} // namespace keel

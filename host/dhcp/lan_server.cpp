#include "host/dhcp/lan_server.h"

#include <algorithm>

#include "host/base/trace.h"

namespace keel {

namespace {

constexpr const char *pools_path = "DHCPv4.Server.Pool";
constexpr std::size_t max_id = 35; /* characters of a client identifier's text */
constexpr std::size_t max_parked = 64;
constexpr std::uint64_t declined_for_s = 600;
constexpr std::uint64_t offer_valid_s = 60; /* how long an offered address waits for its request */
constexpr std::uint32_t broadcast_address = 0xffffffff;

enum : std::uint8_t {
    option_mask = 1,
    option_router = 3,
    option_lease_time = 51,
    option_renewal = 58,
    option_rebinding = 59
};

/* FNV-1a, 64 bits: the same in every run, which std::hash does not promise. */
std::uint64_t stable_hash(const Bytes &bytes) {
    std::uint64_t hash = 14695981039346656037U;
    for (const std::uint8_t byte : bytes)
        hash = (hash ^ byte) * 1099511628211U;
    return hash;
}

/* The name of the device's lease: its client identifier in hexadecimal, a long one cut and told apart by a hash.
 * Nothing but hexadecimal digits and "-" comes out, whatever the device sent. */
std::string id_of(const DhcpMessage &message) {
    Bytes id = message.client_id;
    if (id.empty()) {
        id = {1};
        id.insert(id.end(), message.hardware.begin(), message.hardware.end());
    }
    std::string text = format_hex(id);
    if (text.size() <= max_id)
        return text;
    const std::uint64_t hash = stable_hash(id);
    return text.substr(0, max_id - 17) + "-" + format_hex(network_bytes(static_cast<std::uint32_t>(hash >> 32))) +
           format_hex(network_bytes(static_cast<std::uint32_t>(hash)));
}

std::string pool_path(const std::string &pool) {
    return std::string(pools_path) + "." + pool;
}

} // namespace

LanDhcpServer::LanDhcpServer(Loop &loop, Model &model, LanPort &port) : loop_(loop), model_(model), port_(port) {
    watch_ = model_.watch(pools_path, [this](const Event &event) { on_event(event); });
    expire();
}

LanDhcpServer::~LanDhcpServer() {
    model_.unwatch(watch_);
    loop_.cancel_timer(expiry_);
}

void LanDhcpServer::drop(const std::string &reason) {
    const std::uint64_t count = ++dropped_[reason];
    if ((count & (count - 1)) == 0) /* the 1st, 2nd, 4th, 8th ... */
        trace(Level::Warning, "lan", "dropped DHCP messages (%s): %llu", reason.c_str(),
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
    if (message.relay != 0) {
        drop("through a relay");
        return;
    }
    const auto rule = rule_for(message);
    if (!rule) {
        drop("no pool for the device");
        return;
    }
    const std::string id = id_of(message);
    switch (message.type) {
    case DhcpType::Discover:
        discover(message, *rule, id);
        break;
    case DhcpType::Request:
        request(message, *rule, id);
        break;
    case DhcpType::Release:
        release(message, *rule, id, false);
        break;
    case DhcpType::Decline:
        release(message, *rule, id, true);
        break;
    case DhcpType::Inform:
        inform(message, *rule);
        break;
    default:
        drop("a server's message");
    }
}

std::optional<LanDhcpServer::Rule> LanDhcpServer::rule_for(const DhcpMessage &message) const {
    std::optional<Rule> rest;
    if (!model_.boolean("DHCPv4.Server", "Enable"))
        return rest;
    for (const std::string &pool : model_.instances(pools_path)) {
        if (!model_.boolean(pool_path(pool), "Enable"))
            continue;
        for (const std::string &number : model_.instances(pool_path(pool) + ".Rule")) {
            const std::string path = pool_path(pool) + ".Rule." + number;
            const std::string wanted = model_.text(path, "VendorClass");
            const Rule rule{pool, path, ipv4_or_none(model_.text(path, "MinAddress")),
                            ipv4_or_none(model_.text(path, "MaxAddress"))};
            if (wanted.empty() && !rest)
                rest = rule;
            else if (!wanted.empty() && message.vendor_class.starts_with(wanted))
                return rule;
        }
    }
    return rest;
}

std::string LanDhcpServer::lease_path(const Rule &rule, const std::string &id) const {
    return rule.path + ".Lease." + id;
}

void LanDhcpServer::discover(const DhcpMessage &message, const Rule &rule, const std::string &id) {
    const std::string path = lease_path(rule, id);
    if (!model_.find(path) && !add_lease(message, rule, id))
        return;
    if (model_.boolean(path, "OnHold"))
        park(message, rule, id);
    else
        answer_lease(message, rule, id, DhcpType::Offer);
}

void LanDhcpServer::request(const DhcpMessage &message, const Rule &rule, const std::string &id) {
    const std::uint32_t server = ipv4_or_none(model_.text(pool_path(rule.pool), "Router"));
    if (message.server_id != 0 && message.server_id != server)
        return; /* it took another server's offer */
    const std::uint32_t wanted = message.requested_address ? message.requested_address : message.client_address;
    const std::string path = lease_path(rule, id);
    const bool known = model_.find(path) != nullptr;
    const bool right = known && ipv4_or_none(model_.text(path, "IPAddress")) == wanted;
    if (right && model_.boolean(path, "OnHold")) {
        park(message, rule, id);
        return;
    }
    if (right) {
        answer_lease(message, rule, id, DhcpType::Ack);
        return;
    }
    /* A device that comes back with an address that is free is given it; any other must begin anew. */
    if (!known && wanted >= rule.low && wanted <= rule.high && !in_use(wanted)) {
        if (add_lease(message, rule, id)) {
            if (model_.boolean(path, "OnHold"))
                park(message, rule, id);
            else
                answer_lease(message, rule, id, DhcpType::Ack);
        }
        return;
    }
    answer(message, rule, {DhcpType::Nak, 0, server, {}});
}

void LanDhcpServer::release(const DhcpMessage &message, const Rule &rule, const std::string &id, bool declined) {
    const std::string path = lease_path(rule, id);
    const std::uint32_t address = declined ? message.requested_address : message.client_address;
    if (!model_.find(path) || address == 0 || ipv4_or_none(model_.text(path, "IPAddress")) != address)
        return;
    if (declined) {
        trace(Level::Warning, "lan", "%s is in use by another device, says %s; it is set aside",
              format_ipv4(address).c_str(), format_mac(message.hardware.data()).c_str());
        declined_until_[address] = loop_.wall_clock_s() + declined_for_s;
    }
    model_.remove(path);
}

void LanDhcpServer::inform(const DhcpMessage &message, const Rule &rule) {
    if (message.client_address == 0) {
        drop("INFORM without an address");
        return;
    }
    DhcpReply reply{DhcpType::Ack, 0, 0, {}};
    answer(message, rule, reply);
}

/* --------------------------------------------------------------------------------------------------- leases */

bool LanDhcpServer::in_use(std::uint32_t address) const {
    const std::string text = format_ipv4(address);
    for (const std::string &pool : model_.instances(pools_path)) {
        if (model_.text(pool_path(pool), "Router") == text)
            return true;
        for (const std::string &number : model_.instances(pool_path(pool) + ".Rule")) {
            const std::string leases = pool_path(pool) + ".Rule." + number + ".Lease";
            for (const std::string &id : model_.instances(leases))
                if (model_.text(leases + "." + id, "IPAddress") == text)
                    return true;
        }
    }
    const auto declined = declined_until_.find(address);
    return declined != declined_until_.end() && declined->second > loop_.wall_clock_s();
}

/* What the device asks for if that is free, else the lowest that is; 0 when the range is used up. */
std::uint32_t LanDhcpServer::choose_address(const DhcpMessage &message, const Rule &rule) const {
    for (const std::uint32_t wanted : {message.requested_address, message.client_address})
        if (wanted >= rule.low && wanted <= rule.high && wanted != 0 && !in_use(wanted))
            return wanted;
    for (std::uint32_t address = rule.low; address != 0 && address <= rule.high; ++address)
        if (!in_use(address))
            return address;
    return 0;
}

/* A device that turns up as another kind leaves its lease of before. */
void LanDhcpServer::drop_lease_elsewhere(const Rule &rule, const std::string &id) {
    for (const std::string &pool : model_.instances(pools_path))
        for (const std::string &number : model_.instances(pool_path(pool) + ".Rule")) {
            const std::string path = pool_path(pool) + ".Rule." + number;
            if (path != rule.path && model_.find(path + ".Lease." + id))
                model_.remove(path + ".Lease." + id);
        }
}

bool LanDhcpServer::add_lease(const DhcpMessage &message, const Rule &rule, const std::string &id) {
    drop_lease_elsewhere(rule, id);
    const std::uint32_t address = choose_address(message, rule);
    if (address == 0) {
        drop("the range of " + rule.path + " is used up");
        return false;
    }
    const bool hold = model_.boolean(pool_path(rule.pool), "LeasesOnHold");
    const Outcome refusal = model_.add(rule.path + ".Lease", id,
                                       {{"ClientID", id},
                                        {"IPAddress", format_ipv4(address)},
                                        {"MACAddress", format_mac(message.hardware.data())},
                                        {"OnHold", hold},
                                        {"Expires", static_cast<std::int64_t>(loop_.wall_clock_s() + offer_valid_s)}});
    if (refusal) {
        trace(Level::Error, "lan", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
        return false;
    }
    follow_expiry();
    return true;
}

/* The device waits; its later requests take the place of the earlier one, and keep its lease from expiring. */
void LanDhcpServer::park(const DhcpMessage &message, const Rule &rule, const std::string &id) {
    const std::string path = lease_path(rule, id);
    if (parked_.size() >= max_parked && !parked_.contains(path)) {
        drop("too many devices on hold");
        return;
    }
    parked_[path] = message;
    model_.set(path, {{"Expires", static_cast<std::int64_t>(loop_.wall_clock_s() + offer_valid_s)}});
    follow_expiry();
}

std::uint32_t LanDhcpServer::lease_time(const Rule &rule) const {
    const std::string path = pool_path(rule.pool);
    const std::int64_t low = model_.integer(path, "MinLeaseTime");
    const std::int64_t high = std::max(low, model_.integer(path, "MaxLeaseTime"));
    return static_cast<std::uint32_t>(std::clamp(model_.integer(path, "LeaseTime"), low, high));
}

void LanDhcpServer::answer_lease(const DhcpMessage &message, const Rule &rule, const std::string &id, DhcpType type) {
    const std::string path = lease_path(rule, id);
    parked_.erase(path);
    const std::uint32_t time = lease_time(rule);
    DhcpReply reply{type, ipv4_or_none(model_.text(path, "IPAddress")), 0, {}};
    reply.options[option_lease_time] = network_bytes(time);
    reply.options[option_renewal] = network_bytes(time / 2);
    reply.options[option_rebinding] = network_bytes(time / 8 * 7);
    const std::uint64_t valid = type == DhcpType::Ack ? time : offer_valid_s;
    const std::int64_t until = static_cast<std::int64_t>(loop_.wall_clock_s() + valid);
    if (type == DhcpType::Ack || model_.integer(path, "Expires") < until)
        model_.set(path, {{"Expires", until}});
    follow_expiry();
    answer(message, rule, std::move(reply));
}

void LanDhcpServer::answer(const DhcpMessage &message, const Rule &rule, DhcpReply reply) {
    const std::string pool = pool_path(rule.pool);
    const std::uint32_t router = ipv4_or_none(model_.text(pool, "Router"));
    reply.server = router;
    if (reply.type != DhcpType::Nak) {
        reply.options[option_mask] = network_bytes(ipv4_or_none(model_.text(pool, "SubnetMask")));
        reply.options[option_router] = network_bytes(router);
        for (const std::string &name : model_.instances(pool + ".Option")) {
            const std::string path = pool + ".Option." + name;
            const Bytes value = parse_hex(model_.text(path, "Value")).value_or(Bytes());
            const bool empty = std::all_of(value.begin(), value.end(), [](std::uint8_t b) { return b == 0; });
            const auto tag = static_cast<std::uint8_t>(model_.integer(path, "Tag"));
            if (model_.boolean(path, "Enable") && !empty && value.size() <= 255 && tag > 0 && tag < 255)
                reply.options[tag] = value;
        }
    }
    /* RFC 2131, 4.1: to the address that the client has, else to the one it gets, else to all */
    DhcpDestination destination{message.hardware, broadcast_address, router};
    if (reply.type == DhcpType::Nak || (message.client_address == 0 && message.broadcast))
        destination.hardware.fill(0xff);
    else
        destination.address = message.client_address ? message.client_address : reply.your_address;
    port_.send(build_dhcp_reply(message, reply), destination);
}

/* --------------------------------------------------------------------------------------------------- events */

void LanDhcpServer::on_event(const Event &event) {
    const std::string path = event.path();
    const bool of_lease = event.steps.size() == 8 && event.steps[6] == "Lease";
    if (of_lease && event.kind == Event::Kind::Deleted) {
        if (!model_.find(path))
            parked_.erase(path);
    } else if (of_lease && event.kind == Event::Kind::Changed) {
        lease_changed(path, event);
    } else if (event.steps.size() == 4 && event.kind == Event::Kind::Changed && event.values.contains("LeasesOnHold") &&
               !model_.boolean(path, "LeasesOnHold")) {
        release_pool(event.steps[3]);
    }
}

/* Answers the request that waited for the lease, as things stand now. */
void LanDhcpServer::lease_changed(const std::string &path, const Event &event) {
    const auto waiting = parked_.find(path);
    if (!event.values.contains("OnHold") || waiting == parked_.end() || model_.boolean(path, "OnHold"))
        return;
    const DhcpMessage message = waiting->second;
    parked_.erase(waiting);
    const auto rule = rule_for(message);
    if (rule)
        answer_lease(message, *rule, event.steps.back(),
                     message.type == DhcpType::Request ? DhcpType::Ack : DhcpType::Offer);
}

void LanDhcpServer::release_pool(const std::string &pool) {
    for (const std::string &number : model_.instances(pool_path(pool) + ".Rule")) {
        const std::string leases = pool_path(pool) + ".Rule." + number + ".Lease";
        for (const std::string &id : model_.instances(leases))
            model_.set(leases + "." + id, {{"OnHold", false}});
    }
}

/* One timer, for the lease that ends first. */
void LanDhcpServer::follow_expiry() {
    std::int64_t first = 0;
    for (const std::string &pool : model_.instances(pools_path))
        for (const std::string &number : model_.instances(pool_path(pool) + ".Rule")) {
            const std::string leases = pool_path(pool) + ".Rule." + number + ".Lease";
            for (const std::string &id : model_.instances(leases)) {
                const std::int64_t expires = model_.integer(leases + "." + id, "Expires");
                first = first == 0 ? expires : std::min(first, expires);
            }
        }
    loop_.cancel_timer(expiry_);
    expiry_ = 0;
    if (first == 0)
        return;
    const std::int64_t now = static_cast<std::int64_t>(loop_.wall_clock_s());
    const std::uint64_t delay_s = first > now ? static_cast<std::uint64_t>(first - now) : 0;
    expiry_ = loop_.start_timer(delay_s * 1000 + 1000, [this] {
        expiry_ = 0;
        expire();
    });
}

void LanDhcpServer::expire() {
    const std::int64_t now = static_cast<std::int64_t>(loop_.wall_clock_s());
    for (const std::string &pool : model_.instances(pools_path))
        for (const std::string &number : model_.instances(pool_path(pool) + ".Rule")) {
            const std::string leases = pool_path(pool) + ".Rule." + number + ".Lease";
            for (const std::string &id : model_.instances(leases))
                if (model_.integer(leases + "." + id, "Expires") <= now)
                    model_.remove(leases + "." + id);
        }
    std::erase_if(declined_until_, [&](const auto &one) { return one.second <= loop_.wall_clock_s(); });
    follow_expiry();
}

} // namespace keel

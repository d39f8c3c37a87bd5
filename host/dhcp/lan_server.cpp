#include "host/dhcp/lan_server.h"

#include <algorithm>

#include "host/base/trace.h"

namespace keel {

namespace {

constexpr std::size_t max_id = 35; /* characters of a client identifier's text */
constexpr std::size_t max_parked = 64;
constexpr std::uint64_t declined_for_ms = 600000;
constexpr std::uint64_t report_again_ms = 120000; /* a device that is still held, and still asks */
constexpr std::uint64_t longest_wait_ms =
    std::uint64_t{24} * 3600 * 1000;                 /* for the end of a lease; then it is looked again */
constexpr std::uint64_t clock_is_set_s = 1577836800; /* a gateway without a clock of its own starts in 1970 */
constexpr std::uint64_t offer_valid_s = 60;          /* how long an offered address waits for its request */
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

/* Somebody else has set when a lease ends: the server always writes both. */
bool written_by_others(const Event &event) {
    return event.kind == Event::Kind::Changed && event.values.contains("Expires") && !event.values.contains("Written");
}

std::string pool_path(const std::string &pool) {
    return std::string(pools_path) + "." + pool;
}

} // namespace

LanDhcpServer::LanDhcpServer(Loop &loop, Model &model, LanPort &port)
    : loop_(loop), model_(model), port_(port), leases_(model) {
    watch_ = model_.watch(pools_path, [this](const Event &event) { on_event(event); });
    for (const std::string &path : leases_.all())
        leases_.set_end(path, loop_.now_ms() + remaining_s(path) * 1000);
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
    const std::string id = id_of(message);
    const auto rule = rule_for(message, id);
    if (!rule) {
        drop("no pool for the device");
        return;
    }
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

/* A device that does not tell its vendor class belongs where its lease is: DECLINE and RELEASE never tell it (RFC 2131,
 * table 5), and some devices tell it in their DISCOVER alone. */
std::optional<LanDhcpServer::Rule> LanDhcpServer::rule_for(const DhcpMessage &message, const std::string &id) const {
    std::optional<Rule> rest;
    if (!model_.boolean("DHCPv4.Server", "Enable"))
        return rest;
    if (message.vendor_class.empty())
        for (const auto &[path, place] : leases_.leases_of(id))
            if (is_of(path, message) && model_.boolean(pool_path(place.pool), "Enable"))
                return rule_at(place.pool, place.rule);
    for (const std::string &pool : model_.instances(pools_path)) {
        if (!model_.boolean(pool_path(pool), "Enable"))
            continue;
        for (const std::string &number : model_.instances(pool_path(pool) + ".Rule")) {
            const Rule rule = rule_at(pool, number);
            const std::string wanted = model_.text(rule.path, "VendorClass");
            if (wanted.empty() && !rest)
                rest = rule;
            else if (!wanted.empty() && message.vendor_class.starts_with(wanted))
                return rule;
        }
    }
    return rest;
}

/* Whether the lease is the sender's: an identifier alone can be anybody's. */
bool LanDhcpServer::is_of(const std::string &path, const DhcpMessage &message) const {
    return model_.text(path, "MACAddress") == format_mac(message.hardware.data());
}

LanDhcpServer::Rule LanDhcpServer::rule_at(const std::string &pool, const std::string &number) const {
    const std::string path = pool_path(pool) + ".Rule." + number;
    return {pool, path, ipv4_or_none(model_.text(path, "MinAddress")), ipv4_or_none(model_.text(path, "MaxAddress"))};
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
    if (!model_.find(path) || !is_of(path, message) || address == 0 ||
        ipv4_or_none(model_.text(path, "IPAddress")) != address)
        return;
    if (declined) {
        trace(Level::Warning, "lan", "%s is in use by another device, says %s; it is set aside",
              format_ipv4(address).c_str(), format_mac(message.hardware.data()).c_str());
        declined_until_[address] = loop_.now_ms() + declined_for_ms;
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
    for (const std::string &pool : model_.instances(pools_path))
        if (ipv4_or_none(model_.text(pool_path(pool), "Router")) == address)
            return true;
    const auto declined = declined_until_.find(address);
    return leases_.is_leased(address) || (declined != declined_until_.end() && declined->second > loop_.now_ms());
}

/* What the device asks for if that is free, else the one unused longest, the lowest of those never used; 0 when the
 * range is used up. A device that was switched off so keeps its address for as long as there are others: what was set
 * up for it, a mapping above all, may still be in force. */
std::uint32_t LanDhcpServer::choose_address(const DhcpMessage &message, const Rule &rule) const {
    for (const std::uint32_t wanted : {message.requested_address, message.client_address})
        if (wanted >= rule.low && wanted <= rule.high && wanted != 0 && !in_use(wanted))
            return wanted;
    std::uint32_t longest = 0;
    std::uint64_t freed_at = 0;
    for (std::uint32_t address = rule.low; address != 0 && address <= rule.high; ++address) {
        if (in_use(address))
            continue;
        const std::uint64_t freed = leases_.freed(address);
        if (freed == 0)
            return address;
        if (longest == 0 || freed < freed_at) {
            longest = address;
            freed_at = freed;
        }
    }
    return longest;
}

/* A device that turns up as another kind leaves its lease of before. */
void LanDhcpServer::drop_lease_elsewhere(const Rule &rule, const std::string &id) {
    for (const auto &[path, place] : leases_.leases_of(id))
        if (path != lease_path(rule, id))
            model_.remove(path);
}

bool LanDhcpServer::add_lease(const DhcpMessage &message, const Rule &rule, const std::string &id) {
    drop_lease_elsewhere(rule, id);
    const std::uint32_t address = choose_address(message, rule);
    if (address == 0) {
        drop("the range of " + rule.path + " is used up");
        return false;
    }
    return report_lease(message, rule, id, address);
}

/* Whoever watches the pool is told of the device. */
bool LanDhcpServer::report_lease(const DhcpMessage &message, const Rule &rule, const std::string &id,
                                 std::uint32_t address) {
    const bool hold = model_.boolean(pool_path(rule.pool), "LeasesOnHold");
    const auto now = static_cast<std::int64_t>(loop_.wall_clock_s());
    const Outcome refusal = model_.add(rule.path + ".Lease", id,
                                       {{"ClientID", id},
                                        {"IPAddress", format_ipv4(address)},
                                        {"MACAddress", format_mac(message.hardware.data())},
                                        {"OnHold", hold},
                                        {"Expires", now + static_cast<std::int64_t>(offer_valid_s)},
                                        {"Written", now}});
    if (refusal) {
        trace(Level::Error, "lan", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
        return false;
    }
    lasts(lease_path(rule, id), offer_valid_s);
    return true;
}

/* The device waits; its later requests take the place of the earlier one, and keep its lease from expiring. */
void LanDhcpServer::park(const DhcpMessage &message, const Rule &rule, const std::string &id) {
    const std::string path = lease_path(rule, id);
    if (parked_.size() >= max_parked && !parked_.contains(path)) {
        drop("too many devices on hold");
        return;
    }
    auto [parked, fresh] = parked_.try_emplace(path);
    if (fresh)
        parked->second.reported_ms = loop_.now_ms();
    parked->second.message = message;
    if (loop_.now_ms() - parked->second.reported_ms >= report_again_ms) {
        /* Whoever refused it may think otherwise by now. */
        const std::uint32_t address = ipv4_or_none(model_.text(path, "IPAddress"));
        parked->second.reported_ms = loop_.now_ms();
        model_.remove(path);
        report_lease(message, rule, id, address);
        return;
    }
    lasts(path, offer_valid_s);
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
    if (type == DhcpType::Ack)
        lasts(path, time);
    else if (leases_.end_of(path).value_or(0) < loop_.now_ms() + offer_valid_s * 1000)
        lasts(path, offer_valid_s);
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
    const bool of_lease = is_of_lease(event);
    if (of_lease && event.kind == Event::Kind::Deleted) {
        if (!model_.find(path))
            parked_.erase(path);
    } else if (of_lease && (event.kind == Event::Kind::Added || event.kind == Event::Kind::Changed)) {
        if (model_.find(path) && (!leases_.end_of(path) || written_by_others(event))) {
            leases_.set_end(path, loop_.now_ms() + remaining_s(path) * 1000);
            follow_expiry();
        }
        lease_changed(path, event);
    } else if (event.steps.size() == 4 && event.kind == Event::Kind::Changed && event.values.contains("LeasesOnHold") &&
               !model_.boolean(path, "LeasesOnHold")) {
        release_pool(event.steps[3]);
    }
}

/* Answers the request that waited for the lease, as things stand now; the lease stays where it is, whatever the rules
 * say of the device by now. */
void LanDhcpServer::lease_changed(const std::string &path, const Event &event) {
    const auto waiting = parked_.find(path);
    if (!event.values.contains("OnHold") || waiting == parked_.end() || model_.boolean(path, "OnHold", true))
        return;
    const DhcpMessage message = waiting->second.message;
    parked_.erase(waiting);
    answer_lease(message, rule_at(event.steps[3], event.steps[5]), event.steps.back(),
                 message.type == DhcpType::Request ? DhcpType::Ack : DhcpType::Offer);
}

void LanDhcpServer::release_pool(const std::string &pool) {
    for (const std::string &number : model_.instances(pool_path(pool) + ".Rule")) {
        const std::string leases = pool_path(pool) + ".Rule." + number + ".Lease";
        for (const std::string &id : model_.instances(leases))
            model_.set(leases + "." + id, {{"OnHold", false}});
    }
}

/* What is left of a lease that somebody else has put here: the store, an earlier run. */
std::uint64_t LanDhcpServer::remaining_s(const std::string &path) const {
    const auto expires = static_cast<std::uint64_t>(model_.integer(path, "Expires"));
    const auto written = static_cast<std::uint64_t>(model_.integer(path, "Written"));
    const std::uint64_t now = loop_.wall_clock_s();
    if (written == 0)
        return expires > now ? expires - now : 0;
    /* A clock that was not set at one of the two times, or was set back since, tells nothing: rather too long than an
     * address that is given away while its device uses it. */
    const std::uint64_t since = written >= clock_is_set_s && now > written ? now - written : 0;
    return expires > written + since ? expires - written - since : 0;
}

/* From now on. Not every prolongation is written: a device that waits asks every few seconds. */
void LanDhcpServer::lasts(const std::string &path, std::uint64_t validity_s) {
    leases_.set_end(path, loop_.now_ms() + validity_s * 1000);
    const std::uint64_t now = loop_.wall_clock_s();
    const auto shown = static_cast<std::uint64_t>(model_.integer(path, "Expires"));
    if (shown <= now + validity_s / 2 || shown > now + validity_s)
        model_.set(path, {{"Expires", static_cast<std::int64_t>(now + validity_s)},
                          {"Written", static_cast<std::int64_t>(now)}});
    follow_expiry();
}

/* One timer, for the lease that ends first. */
void LanDhcpServer::follow_expiry() {
    const auto first = leases_.first_end();
    const std::uint64_t now = loop_.now_ms();
    const std::uint64_t end_ms = first ? std::clamp(first->first, now, now + longest_wait_ms) + 1000 : 0;
    if (expiry_ != 0 && end_ms != 0 && expiry_ms_ <= end_ms)
        return; /* it looks again then */
    loop_.cancel_timer(expiry_);
    expiry_ = 0;
    if (end_ms == 0)
        return;
    expiry_ms_ = end_ms;
    expiry_ = loop_.start_timer(end_ms - now, [this] {
        expiry_ = 0;
        expire();
    });
}

void LanDhcpServer::expire() {
    const std::uint64_t now = loop_.now_ms();
    for (auto first = leases_.first_end(); first && first->first <= now; first = leases_.first_end())
        model_.remove(first->second);
    std::erase_if(declined_until_, [&](const auto &one) { return one.second <= now; });
    follow_expiry();
}

} // namespace keel

#include "keelctl/gateway.h"

#include <algorithm>
#include <cctype>
#include <ctime>

#include "host/base/text_forms.h"

namespace keelctl {

namespace {

constexpr const char *iptv_pools[] = {"zep_stb", "zep_itf"};

bool is_iptv_pool(const std::string &name) {
    return std::find(std::begin(iptv_pools), std::end(iptv_pools), name) != std::end(iptv_pools);
}

/* Its letters and digits, in lower case. */
std::string plain(const std::string &text) {
    std::string letters;
    for (const char c : text)
        if (std::isalnum(static_cast<unsigned char>(c)))
            letters += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return letters;
}

bool same_letters(const std::string &one, const std::string &other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

void take_if_told(std::string &held, const std::string &told) {
    if (!told.empty())
        held = told;
}

} // namespace

std::string Device::name() const {
    constexpr std::size_t end_size = 5; /* "97:5C" */
    if (!host_name.empty())
        return host_name;
    if (!rule_class.empty() && mac.size() > end_size)
        return rule_class + "-" + mac.substr(mac.size() - end_size);
    return !mac.empty() ? mac : id;
}

Gateway::Gateway(Client &asked, Devices which)
    : client(asked), interfaces(asked), now(static_cast<std::int64_t>(std::time(nullptr))),
      service(child(asked.tree("Keel"), "Zephyrin")), clients(asked.tree("DHCPv4.Client")),
      missing(child(asked.tree("Firewall"), "Missing")), rules_error(text(asked.tree("KeelHost"), "RulesError")) {
    if (which == Devices::All)
        for (const Json &pool : children(client.tree("DHCPv4.Server.Pool"), {}))
            take_pool(pool);
    else
        for (const char *pool : iptv_pools)
            take_pool(instance(client, "DHCPv4.Server.Pool", pool));
    for (const Json &waiting : children(client.tree("DHCPv4.Server.Waiting"), {}))
        take_waiting(waiting);
    for (const Json &identity : children(service, {"ClientLease"}))
        take_identity(identity);
    if (which == Devices::All || simplified()) { /* any device may be tagged */
        for (const Json &host : children(client.tree("Hosts.Host"), {}))
            take_host(host);
    } else {
        std::vector<std::string> macs;
        for (const Device &one : devices)
            macs.push_back(one.mac);
        for (const std::string &mac : macs)
            take_host(instance(client, "Hosts.Host", mac));
    }
    know_classes();
}

void Gateway::know_classes() {
    for (Device &one : devices)
        for (const std::string &known : classes)
            if (one.vendor_class.starts_with(known) && known.size() > one.rule_class.size())
                one.rule_class = known;
}

Device &Gateway::device_with(const std::string &id) {
    const auto found = std::find_if(devices.begin(), devices.end(), [&](const Device &one) { return one.id == id; });
    if (found != devices.end())
        return *found;
    devices.emplace_back();
    devices.back().id = id;
    return devices.back();
}

void Gateway::take_pool(const Json &pool) {
    for (const Json &rule : children(pool, {"Rule"})) {
        if (is_iptv_pool(pool["name"]) && !text(rule, "VendorClass").empty())
            classes.push_back(text(rule, "VendorClass"));
        for (const Json &lease : children(rule, {"Lease"})) {
            Device &one = device_with(lease["name"]);
            one.pool = pool["name"];
            one.mac = text(lease, "MACAddress");
            one.host_name = text(lease, "HostName");
            one.address = text(lease, "IPAddress");
            one.vendor_class = text(lease, "VendorClass");
            one.held = flag(lease, "OnHold");
            one.expires = number(lease, "Expires");
        }
    }
}

void Gateway::take_waiting(const Json &waiting) {
    Device &one = device_with(waiting["name"]);
    take_if_told(one.mac, text(waiting, "MACAddress"));
    take_if_told(one.host_name, text(waiting, "HostName"));
    take_if_told(one.vendor_class, text(waiting, "VendorClass"));
    take_if_told(one.port, text(waiting, "Port"));
    one.because = text(waiting, "Because");
    one.waits_since = number(waiting, "Since");
}

void Gateway::take_identity(const Json &identity) {
    for (const Json &stored : children(identity, {"ServerLease"})) {
        Device &one = device_with(text(stored, "Id"));
        if (!one.mac.empty())
            continue; /* its lease says it better */
        one.mac = text(stored, "MACAddress");
        one.address = text(stored, "IPAddress");
    }
}

void Gateway::take_host(const Json &host) {
    const std::string mac =
        text(host, "MACAddress").empty() ? host["name"].get<std::string>() : text(host, "MACAddress");
    if (mac.empty() || host["parameters"].empty())
        return;
    /* A device may have two leases, of its boot loader's identifier and of its system's: it is where it was seen last,
     * by the address that it has, or by the lease that is longest good. */
    const std::string seen_at = text(host, "IPAddress");
    const auto nearness = [&](const Device &one) {
        return std::pair(!seen_at.empty() && one.address == seen_at, one.expires);
    };
    auto found = devices.end();
    for (auto one = devices.begin(); one != devices.end(); ++one)
        if (!one->mac.empty() && same_letters(one->mac, mac) &&
            (found == devices.end() || nearness(*one) > nearness(*found)))
            found = one;
    if (found == devices.end()) {
        devices.emplace_back();
        found = std::prev(devices.end());
        found->mac = mac;
    }
    found->known = true;
    found->present = flag(host, "Active");
    found->tagged = has_word(text(host, "Tags"), "stb");
    take_if_told(found->port, text(host, "Port"));
    if (found->address.empty() || simplified()) /* there the rules are for the address at which it was seen */
        found->address = seen_at;
}

bool Gateway::is_stb(const Device &one) const {
    if (simplified() && one.tagged)
        return true;
    return !one.rule_class.empty() || is_iptv_pool(one.pool) || identity_of(one);
}

bool Gateway::looks_like_stb(const Device &one) const {
    return std::any_of(classes.begin(), classes.end(), [&](const std::string &known) {
        return !plain(known).empty() && plain(one.vendor_class).starts_with(plain(known));
    });
}

const Json *Gateway::identity_of(const Device &one) const {
    if (one.id.empty())
        return nullptr;
    for (const Json &part : service["children"]) {
        if (part["name"] != "ClientLease")
            continue;
        for (const Json &identity : part["children"])
            for (const Json &stored : children(identity, {"ServerLease"}))
                if (text(stored, "Id") == one.id)
                    return &identity;
    }
    return nullptr;
}

const Device *Gateway::device(const std::string &id) const {
    const auto found = std::find_if(devices.begin(), devices.end(), [&](const Device &one) { return one.id == id; });
    return found == devices.end() ? nullptr : &*found;
}

std::vector<const Device *> Gateway::named(const std::string &name) const {
    std::vector<const Device *> found;
    for (const Device &one : devices)
        if (same_letters(one.mac, name) || same_letters(one.id, name) || one.address == name ||
            same_letters(one.name(), name))
            found.push_back(&one);
    /* What a device that is there has left over under another identifier is not what is asked for. */
    const auto left_over = [&](const Device *one) {
        return !one->is_there() && !same_letters(one->id, name) &&
               std::any_of(found.begin(), found.end(), [&](const Device *other) {
                   return other->is_there() && same_letters(other->mac, one->mac);
               });
    };
    found.erase(std::remove_if(found.begin(), found.end(), left_over), found.end());
    return found;
}

std::vector<const Device *> Gateway::asked(const std::string &name, Device &stranger) const {
    std::vector<const Device *> found = named(name);
    if (found.empty() && keel::parse_mac(name)) {
        stranger.mac = name;
        found.push_back(&stranger);
    }
    if (found.empty())
        throw Refused("no device is known by \"" + name +
                      "\"; it may be named by its host name, MAC address, IPv4 address or identifier");
    return found;
}

} // namespace keelctl

#include "host/config/box_keys.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <set>
#include <sstream>

#include "host/base/text_forms.h"
#include "host/gateway/settings.h"

namespace keel {

namespace {

constexpr const char *gateway_path = "Keel";
constexpr const char *lease_path = "Keel.Zephyrin.DHCPConfig";
constexpr const char *options_path = "Weft.Intf.dhcp_iptv.MIB.dhcp";
constexpr const char *stb_rule = "DHCPv4.Server.Pool.zep_stb.Rule.1";
constexpr const char *itf_rule = "DHCPv4.Server.Pool.zep_itf.Rule.1";
constexpr const char *other_rule = "DHCPv4.Server.Pool.lan.Rule.1";
constexpr const char *dns_option = "DHCPv4.Server.Pool.lan.Option.dns";
constexpr const char *all_pools[] = {"DHCPv4.Server.Pool.zep_stb", "DHCPv4.Server.Pool.zep_itf",
                                     "DHCPv4.Server.Pool.lan"};

/* ------------------------------------------------------------------------------------------------- values */

template <typename Type> std::optional<Type> single(const TomlEntry &entry) {
    if (entry.list || entry.values.size() != 1 || !std::holds_alternative<Type>(entry.values[0]))
        return std::nullopt;
    return std::get<Type>(entry.values[0]);
}

bool is_number_in(const Value &value, std::int64_t low, std::int64_t high) {
    const auto *number = std::get_if<std::int64_t>(&value);
    return number && *number >= low && *number <= high;
}

std::optional<std::string> device_name(const TomlEntry &entry) {
    const auto name = single<std::string>(entry);
    return name && is_device_name(*name) ? name : std::nullopt;
}

std::optional<std::string> class_name(const TomlEntry &entry) {
    const auto name = single<std::string>(entry);
    return name && !name->empty() && name->size() <= 64 && printable_text(*name, 64) == *name ? name : std::nullopt;
}

std::optional<std::string> mac_address(const TomlEntry &entry) {
    const auto address = parse_mac(single<std::string>(entry).value_or(""));
    if (!address || (address->front() & 1) || *address == HardwareAddress{})
        return std::nullopt;
    std::string text = format_mac(address->data());
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::optional<std::string> address(const TomlEntry &entry) {
    const auto one = parse_ipv4(single<std::string>(entry).value_or(""));
    return one ? std::optional(format_ipv4(*one)) : std::nullopt;
}

std::optional<std::string> host_and_subnet(const TomlEntry &entry) {
    const auto network = parse_network(single<std::string>(entry).value_or(""));
    return network && network->prefix >= 8 && network->prefix <= 30 && network->has_host(network->address)
               ? std::optional(format_network(*network))
               : std::nullopt;
}

std::optional<std::string> addresses(const TomlEntry &entry) {
    std::string all;
    if (!entry.list || entry.values.size() > 8)
        return std::nullopt;
    for (const Value &value : entry.values) {
        const auto one = std::holds_alternative<std::string>(value) ? parse_ipv4(to_text(value)) : std::nullopt;
        if (!one)
            return std::nullopt;
        all += (all.empty() ? "" : " ") + format_ipv4(*one);
    }
    return all;
}

std::optional<std::string> option_numbers(const TomlEntry &entry) {
    std::set<std::string> known;
    std::string all;
    for (const Value &value : entry.values) {
        if (!is_number_in(value, 1, 254) || !known.insert(to_text(value)).second)
            return std::nullopt;
        all += (all.empty() ? "" : " ") + to_text(value);
    }
    return entry.list && !all.empty() ? std::optional(all) : std::nullopt;
}

std::optional<std::string> vlan(const TomlEntry &entry) {
    const auto value = single<std::int64_t>(entry);
    return value && is_number_in(*value, 1, 4094) ? std::optional(to_text(*value)) : std::nullopt;
}

std::optional<std::string> yes_or_no(const TomlEntry &entry) {
    const auto value = single<bool>(entry);
    return value ? std::optional(to_text(*value)) : std::nullopt;
}

std::optional<std::string> seconds(const TomlEntry &entry) {
    const auto value = single<std::int64_t>(entry);
    return value && is_number_in(*value, 60, 31536000) ? std::optional(to_text(*value)) : std::nullopt;
}

std::optional<std::string> one_of(const TomlEntry &entry, std::initializer_list<const char *> allowed) {
    const auto value = single<std::string>(entry);
    const bool known =
        value && std::any_of(allowed.begin(), allowed.end(), [&](const char *one) { return *value == one; });
    return known ? value : std::nullopt;
}

std::optional<std::string> mode(const TomlEntry &entry) {
    return one_of(entry, {"Bridged", "Routed", "Simplified", "SimplifiedV2"});
}

std::optional<std::string> service_interface(const TomlEntry &entry) {
    return one_of(entry, {"Dedicated", "Internet"});
}

/* ------------------------------------------------------------------------------------------------- writes */

std::vector<Write> write_subnet(const std::string &text) {
    std::vector<Write> writes;
    const auto network = parse_network(text).value_or(Network{});
    for (const char *pool : all_pools) {
        writes.push_back({pool, "Router", format_ipv4(network.address)});
        writes.push_back({pool, "SubnetMask", format_ipv4(mask_of(network.prefix))});
    }
    return writes;
}

std::vector<Write> write_interface(const std::string &text) {
    return {{service_path, "Interface", text}, {gateway_path, "IPTVMode", text}};
}

std::vector<Write> write_dns(const std::string &text) {
    Bytes bytes;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const Bytes one = network_bytes(ipv4_or_none(word));
        bytes.insert(bytes.end(), one.begin(), one.end());
    }
    return {{dns_option, "Enable", !bytes.empty()}, {dns_option, "Value", format_hex(bytes)}};
}

/* The first byte says that the rest is no hardware address. */
std::vector<Write> write_client_id(const std::string &text) {
    return {{"Weft.Intf.dhcp_iptv.SentOption.61", "Value", "00" + format_hex(Bytes(text.begin(), text.end()))}};
}

constexpr const char *a_network =
    "an address with the length of its subnet's prefix, 8 to 30, such as \"192.168.1.1/24\", is allowed, and not the "
    "subnet's first or last address";
constexpr const char *a_device = "the name of a network device, such as \"eth1\", is allowed";
constexpr const char *a_class = "a text of 1 to 64 plain characters is allowed";
constexpr const char *an_address = "an address such as \"192.168.1.20\" is allowed";
constexpr const char *a_vlan = "a number from 1 to 4094 is allowed";

const BoxKey all_keys[] = {
    {"service.enable", "true or false is allowed", yes_or_no, {service_path, "Enable", Type::Bool}, nullptr},
    {mode_key,
     "\"Bridged\", \"Routed\", \"Simplified\" or \"SimplifiedV2\" is allowed",
     mode,
     {service_path, "Mode", Type::Text},
     nullptr},
    {"service.interface", "\"Dedicated\" or \"Internet\" is allowed", service_interface, {}, write_interface},
    {"service.mono-client", "true or false is allowed", yes_or_no, {service_path, "MonoClient", Type::Bool}, nullptr},
    {"service.lease-time",
     "a number of seconds from 60 to 31536000 is allowed",
     seconds,
     {lease_path, "LeaseTime", Type::UInt32},
     nullptr},
    {iptv_interface_key, a_device, device_name, {}, nullptr},
    {"iptv.device", a_device, device_name, {}, nullptr},
    {"iptv.vlan", a_vlan, vlan, {}, nullptr},
    {iptv_address_key, a_network, host_and_subnet, {}, nullptr},
    {data_interface_key, a_device, device_name, {}, nullptr},
    {"data.device", a_device, device_name, {}, nullptr},
    {"data.vlan", a_vlan, vlan, {}, nullptr},
    {wan_mac_key, "a MAC address of one device, such as \"02:00:00:00:00:01\", is allowed", mac_address, {}, nullptr},
    {"wan.vendor-class", a_class, class_name, {options_path, "VendorClass", Type::Text}, nullptr},
    {"wan.client-id", a_class, class_name, {}, write_client_id},
    {"wan.request-options",
     "a list of different DHCP options, each from 1 to 254, is allowed",
     option_numbers,
     {options_path, "RequestedOptions", Type::Text},
     nullptr},
    {lan_bridge_key, a_device, device_name, {}, nullptr},
    {lan_address_key, a_network, host_and_subnet, {}, write_subnet},
    {"lan.dns", "a list of up to 8 addresses, such as [\"192.168.1.1\"], is allowed", addresses, {}, write_dns},
    {"stb.vendor-class", a_class, class_name, {stb_rule, "VendorClass", Type::Text}, nullptr},
    {"stb.first", an_address, address, {stb_rule, "MinAddress", Type::Text}, nullptr},
    {"stb.last", an_address, address, {stb_rule, "MaxAddress", Type::Text}, nullptr},
    {"itf.vendor-class", a_class, class_name, {itf_rule, "VendorClass", Type::Text}, nullptr},
    {"itf.first", an_address, address, {itf_rule, "MinAddress", Type::Text}, nullptr},
    {"itf.last", an_address, address, {itf_rule, "MaxAddress", Type::Text}, nullptr},
    {"others.first", an_address, address, {other_rule, "MinAddress", Type::Text}, nullptr},
    {"others.last", an_address, address, {other_rule, "MaxAddress", Type::Text}, nullptr},
};

/* The parameters that a key writes, with the values that they have. */
std::optional<std::vector<Write>> current(const Model &model, const BoxKey &key) {
    std::vector<Write> writes = key.writes("");
    for (Write &write : writes) {
        const auto value = model.get(write.path, write.parameter);
        if (!value)
            return std::nullopt;
        write.value = *value;
    }
    return writes;
}

std::string first_word(const std::string &text) {
    return text.substr(0, text.find(' '));
}

} // namespace

bool is_device_name(const std::string &name) {
    return !name.empty() && name.size() <= 15 && name.front() != '.' && name.back() != '.' && name.front() != '-' &&
           std::all_of(name.begin(), name.end(), [](unsigned char c) {
               return c < 0x80 && (std::isalnum(c) || c == '.' || c == '_' || c == '-');
           });
}

std::vector<Write> BoxKey::writes(const std::string &text) const {
    if (write)
        return write(text);
    if (!place.path)
        return {};
    return {{place.path, place.parameter, parse_value(place.type, text).value_or(empty_value(place.type))}};
}

std::span<const BoxKey> box_keys() {
    return all_keys;
}

const BoxKey *find_box_key(const std::string &name) {
    const auto *found =
        std::find_if(std::begin(all_keys), std::end(all_keys), [&](const BoxKey &key) { return name == key.name; });
    return found == std::end(all_keys) ? nullptr : found;
}

BoxDefaults box_defaults(const Model &model) {
    BoxDefaults defaults;
    for (const BoxKey &key : all_keys)
        if (key.in_model())
            if (const auto writes = current(model, key)) {
                const Value &first = writes->front().value;
                defaults.keys[key.name] = {to_text(first), *writes};
            }
    const auto lan = defaults.keys.find(lan_address_key);
    if (lan != defaults.keys.end()) {
        const std::uint32_t mask = ipv4_or_none(to_text(lan->second.writes[1].value));
        lan->second.text += "/" + std::to_string(prefix_length_of(mask));
    }
    defaults.keys[iptv_interface_key] = {first_word(model.text("Weft.Intf.dhcp_iptv", "LowerLayers")), {}};
    defaults.keys[data_interface_key] = {first_word(model.text("Weft.Intf.data", "LowerLayers")), {}};
    defaults.keys[lan_bridge_key] = {model.text("DHCPv4.Server", "Interface"), {}};
    defaults.interfaces = model.instances("Weft.Intf");
    return defaults;
}

} // namespace keel

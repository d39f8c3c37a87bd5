#include "host/config/carried.h"

#include <algorithm>
#include <cctype>
#include <set>

#include <nlohmann/json.hpp>

#include "host/base/text_forms.h"
#include "host/config/box_settings.h"
#include "host/gateway/settings.h"

namespace keel {

using Json = nlohmann::ordered_json; /* as the rest of the host has it; what comes from maps is sorted by that */

namespace {

constexpr const char *format_name = "keel-export";
constexpr int form_version = 1;
constexpr std::size_t longest_text = 64; /* of what a device says of itself, and of tags */
constexpr std::size_t longest_id = 35;   /* of a client identifier's text */
constexpr std::int64_t no_slot = -1;     /* the shared identity, which has no identifier of its own */
constexpr std::int64_t last_slot = 4;    /* behind the four of the STBs: ITF devices share it */
constexpr const char *stb_pool = "zep_stb";

/* What is stored of the service, but not what the operator and the state of the service write there. */
const std::pair<const char *, std::vector<std::string>> carried_settings[] = {
    {service_path, {"Enable", "Interface", "Mode", "MonoClient", "WanMode"}},
    {"Keel.Zephyrin.DHCPConfig", {"LeaseTime"}},
};

const std::vector<std::string> *settings_of(const std::string &path) {
    for (const auto &[known, names] : carried_settings)
        if (path == known)
            return &names;
    return nullptr;
}

/* The operator's servers: written at each binding. */
bool is_operators(const std::string &pool, const std::string &option) {
    const std::string path = join_path(lan_pools_path, pool);
    return std::find(std::begin(iptv_pools), std::end(iptv_pools), path) != std::end(iptv_pools) &&
           (option == "ntp" || option == "www");
}

bool is_id(const std::string &text) {
    return !text.empty() && text.size() <= longest_id && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return c < 0x80 && (std::isalnum(c) || c == '-');
    });
}

bool is_option_name(const std::string &text) {
    return !text.empty() && text.size() <= max_name && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return c < 0x80 && (std::isalnum(c) || c == '-' || c == '_');
    });
}

Json value_json(const Value &value) {
    return std::visit([](const auto &held) { return Json(held); }, value);
}

/* ------------------------------------------------------------------------------------------------- gathering */

void gather_pool(const Model &model, const std::string &pool, Carried &carried) {
    for (const std::string &name : model.instances(option_path(pool))) {
        const std::string path = join_path(option_path(pool), name);
        if (!is_operators(pool, name))
            carried.options[pool][name] = {model.boolean(path, "Enable"), model.integer(path, "Tag"),
                                           model.text(path, "Value")};
    }
    const std::string rules = join_path(lan_pools_path, pool) + ".Rule";
    for (const std::string &rule : model.instances(rules)) {
        const std::string leases = join_path(rules, rule) + ".Lease";
        for (const std::string &id : model.instances(leases)) {
            const std::string path = join_path(leases, id);
            if (model.boolean(path, "Acknowledged")) /* else the device does not have it */
                carried.leases[id] = {pool,
                                      rule,
                                      model.text(path, "MACAddress"),
                                      model.text(path, "IPAddress"),
                                      model.text(path, "HostName"),
                                      model.text(path, "VendorClass")};
        }
    }
}

Carried::Identity gather_identity(const Model &model, const std::string &path) {
    Carried::Identity identity{model.integer(path, "ClientIDOffset", no_slot), {}};
    for (const std::string &id : model.instances(path + ".ServerLease")) {
        const std::string device = join_path(path + ".ServerLease", id);
        identity.devices[id] = {model.text(device, "DeviceType"), model.text(device, "MACAddress"),
                                model.text(device, "IPAddress")};
    }
    return identity;
}

/* Those tags that a device has because of its lease come with the lease. */
void gather_tags(const Model &model, Carried &carried) {
    std::set<std::string> stbs;
    for (const auto &[id, lease] : carried.leases)
        if (lease.pool == stb_pool)
            stbs.insert(lease.mac);
    for (const std::string &mac : model.instances(hosts_list_path)) {
        const std::string tags = model.text(join_path(hosts_list_path, mac), "Tags");
        if (tags != (stbs.contains(mac) ? "lan stb" : "lan"))
            carried.tags[mac] = tags;
    }
}

/* --------------------------------------------------------------------------------------------------- reading */

/* One place of the text, with the names that lead there. */
struct Place {
    const Json &json;
    std::string name;
    std::string key; /* the last one as it is: it may hold dots, and what cannot be printed */
};

class Reader {
public:
    Reader(const Model &model, std::vector<std::string> &errors) : model_(model), errors_(errors) {}

    Carried read(const Json &json) {
        const Place top{json, "", ""};
        if (!is_of_our_form(top))
            return {};
        static const std::set<std::string> known = {"format",   "version", "program",    "wan_mac", "settings_file",
                                                    "settings", "options", "identities", "leases",  "tags"};
        refuse_others(top, known);
        carried_.program = text(top, "program", false);
        carried_.wan_mac = text(top, "wan_mac", false);
        if (!carried_.wan_mac.empty() && !parse_mac(carried_.wan_mac))
            refuse("wan_mac", "it is no MAC address");
        for (const Place &key : members(top, "settings_file"))
            if (key.json.is_string())
                carried_.settings_file[key.key] = key.json.get<std::string>();
            else
                refuse(key.name, "it is no text");
        for (const Place &object : members(top, "settings"))
            read_settings(object);
        for (const Place &pool : members(top, "options"))
            read_options(pool);
        for (const Place &identity : members(top, "identities"))
            read_identity(identity);
        for (const Place &lease : members(top, "leases"))
            read_lease(lease);
        for (const Place &tags : members(top, "tags"))
            read_tags(tags);
        return std::move(carried_);
    }

private:
    void refuse(const std::string &place, const std::string &reason) { errors_.push_back(place + ": " + reason); }

    bool is_of_our_form(const Place &top) {
        static const Json none;
        /* Not a copy: that of what is nested deeply has no end. */
        const auto member = [&](const char *name) -> const Json & {
            const auto found = top.json.is_object() ? top.json.find(name) : top.json.end();
            return found == top.json.end() ? none : *found;
        };
        if (!member("format").is_string() || member("format") != format_name) {
            refuse("format",
                   std::string("this is no file of keelctl export: \"format\" must be \"") + format_name + "\"");
            return false;
        }
        const Json &version = member("version");
        if (version.is_number_integer() && version == form_version)
            return true;
        refuse("version", version.is_number_integer()
                              ? "the file has form " + version.dump() + ", and this keelhost reads form " +
                                    std::to_string(form_version) + ": export it with a keelhost of this version"
                              : "it must be a whole number");
        return false;
    }

    std::vector<Place> members(const Place &of, const char *name = nullptr) {
        const Json *json = &of.json;
        std::string where = of.name;
        if (name) {
            where = join_path(where, name);
            const auto found = of.json.find(name);
            if (found == of.json.end()) {
                refuse(where, "it is missing: {} stands for none");
                return {};
            }
            json = &*found;
        }
        std::vector<Place> all;
        if (!json->is_object()) {
            refuse(where, "it must be an object, {...}");
            return all;
        }
        for (const auto &[key, value] : json->items())
            all.push_back({value, join_path(where, printable_text(key, max_name)), key});
        return all;
    }

    void refuse_others(const Place &of, const std::set<std::string> &known) {
        std::string all;
        for (const std::string &name : known)
            all += (all.empty() ? "" : ", ") + name;
        for (const Place &member : members(of))
            if (!known.contains(member.key))
                refuse(member.name, "there is no such member; there are " + all);
    }

    std::string text(const Place &of, const char *name, bool needed = true) {
        const auto found = of.json.is_object() ? of.json.find(name) : of.json.end();
        const std::string place = join_path(of.name, name);
        if (found == of.json.end()) {
            if (needed)
                refuse(place, "it is missing");
        } else if (!found->is_string()) {
            refuse(place, "it must be a text");
        } else {
            return found->get<std::string>();
        }
        return "";
    }

    std::int64_t number(const Place &of, const char *name, std::int64_t low, std::int64_t high) {
        const auto found = of.json.is_object() ? of.json.find(name) : of.json.end();
        const auto value = found != of.json.end() && found->is_number_integer()
                               ? parse_value(Type::Int32, found->dump())
                               : std::nullopt;
        if (value && std::get<std::int64_t>(*value) >= low && std::get<std::int64_t>(*value) <= high)
            return std::get<std::int64_t>(*value);
        refuse(join_path(of.name, name),
               "it must be a whole number from " + std::to_string(low) + " to " + std::to_string(high));
        return low;
    }

    std::string mac_address(const Place &of, const std::string &typed) {
        const auto address = parse_mac(typed);
        if (!address)
            refuse(of.name, "\"" + printable_text(typed, longest_text) + "\" is no MAC address");
        return address ? format_mac(address->data()) : "";
    }

    std::string lan_address(const Place &of) {
        const std::string typed = text(of, "address");
        const auto address = parse_ipv4(typed);
        if (!address)
            refuse(join_path(of.name, "address"),
                   "\"" + printable_text(typed, longest_text) + "\" is no address such as \"192.168.1.20\"");
        return address ? format_ipv4(*address) : "";
    }

    void read_settings(const Place &object) {
        const std::string path = object.key;
        const auto *names = settings_of(path);
        const Node *node = names ? model_.find(path) : nullptr;
        if (!node) {
            refuse(object.name, "there is no such object whose settings are carried");
            return;
        }
        for (const Place &place : members(object)) {
            const std::string name = place.key;
            const ParameterShape *shape = node->shape->parameter(name);
            if (!shape || std::find(names->begin(), names->end(), name) == names->end()) {
                refuse(place.name, "there is no such setting");
                continue;
            }
            const bool simple = place.json.is_primitive() && !place.json.is_null();
            const std::string typed = place.json.is_string() ? place.json.get<std::string>()
                                      : simple               ? place.json.dump()
                                                             : place.json.type_name();
            const auto value = simple ? parse_value(shape->type, typed) : std::nullopt;
            const std::string shown = "\"" + printable_text(typed, longest_text) + "\"";
            if (!value)
                refuse(place.name, shown + " is no value of type " + type_name(shape->type));
            else if (!shape->known.empty() &&
                     std::find(shape->known.begin(), shape->known.end(), to_text(*value)) == shape->known.end())
                refuse(place.name, shown + " is not one of " + joined(shape->known));
            else
                carried_.settings[path][name] = *value;
        }
    }

    static std::string joined(const std::vector<std::string> &words) {
        std::string all;
        for (const std::string &word : words)
            all += (all.empty() ? "" : ", ") + word;
        return all;
    }

    void read_options(const Place &pool) {
        const std::string name = pool.key;
        if (!model_.find(option_path(name))) {
            refuse(pool.name, "this box has no such pool");
            return;
        }
        for (const Place &option : members(pool)) {
            refuse_others(option, {"enable", "tag", "value"});
            const auto enable = option.json.is_object() ? option.json.find("enable") : option.json.end();
            const bool told = enable != option.json.end() && enable->is_boolean();
            if (!told)
                refuse(join_path(option.name, "enable"), "it must be true or false");
            if (!is_option_name(option.key))
                refuse(option.name, "an option's name has letters, digits, \"-\" and \"_\"");
            const std::string value = text(option, "value");
            if (!parse_hex(value))
                refuse(join_path(option.name, "value"), "it must be hexadecimal, two digits a byte");
            carried_.options[name][option.key] = {told && enable->get<bool>(), number(option, "tag", 1, 254), value};
        }
    }

    void read_identity(const Place &place) {
        const std::string name = place.key;
        refuse_others(place, {"slot", "devices"});
        if (!is_id(name))
            refuse(place.name, "an identity's name has 1 to 35 letters, digits and \"-\"");
        Carried::Identity identity{number(place, "slot", no_slot, last_slot), {}};
        if (identity.slot >= 0 && identity.slot < last_slot)
            if (const auto [other, is_new] = slots_.insert({identity.slot, place.name}); !is_new)
                refuse(place.name, "it has slot " + std::to_string(identity.slot) + ", as " + other->second + " has");
        if (!place.json.is_object())
            return;
        for (const Place &device : members(place, "devices")) {
            const std::string id = device.key;
            refuse_others(device, {"type", "mac", "address"});
            if (!is_id(id))
                refuse(device.name, "a device's identifier has 1 to 35 letters, digits and \"-\"");
            if (const auto [other, is_new] = devices_.insert({id, device.name}); !is_new)
                refuse(device.name, "the device stands in " + other->second + ", too");
            const std::string type = text(device, "type");
            if (type != "STB" && type != "ITF")
                refuse(join_path(device.name, "type"), "it must be \"STB\" or \"ITF\"");
            identity.devices[id] = {type, mac_address(device, text(device, "mac")), lan_address(device)};
        }
        carried_.identities[name] = identity;
    }

    void read_lease(const Place &place) {
        refuse_others(place, {"pool", "rule", "mac", "address", "host_name", "vendor_class"});
        if (!is_id(place.key))
            refuse(place.name, "a device's identifier has 1 to 35 letters, digits and \"-\"");
        const auto said = [&](const char *name) { return printable_text(text(place, name, false), longest_text); };
        const Carried::Lease lease{text(place, "pool"), text(place, "rule"), mac_address(place, text(place, "mac")),
                                   lan_address(place),  said("host_name"),   said("vendor_class")};
        const std::string rule = join_path(join_path(lan_pools_path, lease.pool) + ".Rule", lease.rule);
        if (!model_.find(lease_list_path(lease))) {
            refuse(place.name, "this box has no such pool and rule");
            return;
        }
        const std::uint32_t address = ipv4_or_none(lease.address);
        const std::string first = model_.text(rule, "MinAddress");
        const std::string last = model_.text(rule, "MaxAddress");
        if (address != 0 && (address < ipv4_or_none(first) || address > ipv4_or_none(last)))
            refuse(join_path(place.name, "address"), lease.address + " is not in the range of " + lease.pool +
                                                         " here, " + first + " to " + last +
                                                         ": take keelhost.toml over first");
        if (const auto [other, is_new] = addresses_.insert({lease.address, place.name}); !is_new && address != 0)
            refuse(place.name, lease.address + " is leased to " + other->second + ", too");
        carried_.leases[place.key] = lease;
    }

    void read_tags(const Place &place) {
        const std::string mac = mac_address(place, place.key);
        const std::string words = place.json.is_string() ? place.json.get<std::string>() : "\n";
        if (printable_text(words, longest_text) != words)
            refuse(place.name, "it must be a text of up to 64 plain characters");
        carried_.tags[mac] = words;
    }

    const Model &model_;
    std::vector<std::string> &errors_;
    Carried carried_;
    std::map<std::int64_t, std::string> slots_;    /* -> who has it */
    std::map<std::string, std::string> devices_;   /* -> where it stands */
    std::map<std::string, std::string> addresses_; /* -> whose lease it is */
};

std::string line_of(const std::string &text, std::size_t byte) {
    return std::to_string(
        1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(std::min(byte, text.size())), '\n'));
}

} // namespace

std::string option_path(const std::string &pool) {
    return join_path(lan_pools_path, pool) + ".Option";
}

std::string lease_list_path(const Carried::Lease &lease) {
    return join_path(join_path(lan_pools_path, lease.pool) + ".Rule", lease.rule) + ".Lease";
}

Carried gather_carried(const Model &model) {
    Carried carried;
    for (const std::string &key : model.instances(read_settings_path))
        carried.settings_file[key] = model.text(join_path(read_settings_path, key), "Value");
    for (const auto &[path, names] : carried_settings)
        for (const std::string &name : names)
            if (const auto value = model.get(path, name))
                carried.settings[path][name] = *value;
    for (const std::string &pool : model.instances(lan_pools_path))
        gather_pool(model, pool, carried);
    for (const std::string &name : model.instances(identities_path))
        carried.identities[name] = gather_identity(model, join_path(identities_path, name));
    gather_tags(model, carried);
    return carried;
}

std::string carried_text(const Carried &carried) {
    Json json{{"format", format_name},      {"version", form_version},         {"program", carried.program},
              {"wan_mac", carried.wan_mac}, {"settings_file", Json::object()}, {"settings", Json::object()},
              {"options", Json::object()},  {"identities", Json::object()},    {"leases", Json::object()},
              {"tags", Json::object()}};
    for (const auto &[key, value] : carried.settings_file)
        json["settings_file"][key] = value;
    for (const auto &[path, values] : carried.settings)
        for (const auto &[name, value] : values)
            json["settings"][path][name] = value_json(value);
    for (const auto &[pool, options] : carried.options)
        for (const auto &[name, option] : options)
            json["options"][pool][name] = {{"enable", option.enable}, {"tag", option.tag}, {"value", option.value}};
    for (const auto &[name, identity] : carried.identities) {
        Json devices = Json::object();
        for (const auto &[id, device] : identity.devices)
            devices[id] = {{"type", device.type}, {"mac", device.mac}, {"address", device.address}};
        json["identities"][name] = {{"slot", identity.slot}, {"devices", devices}};
    }
    for (const auto &[id, lease] : carried.leases)
        json["leases"][id] = {
            {"pool", lease.pool},       {"rule", lease.rule},           {"mac", lease.mac},
            {"address", lease.address}, {"host_name", lease.host_name}, {"vendor_class", lease.vendor_class}};
    for (const auto &[mac, tags] : carried.tags)
        json["tags"][mac] = tags;
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

Carried read_carried(const std::string &text, const Model &model, std::vector<std::string> *errors) {
    try {
        return Reader(model, *errors).read(Json::parse(text));
    } catch (const Json::parse_error &mistake) {
        errors->push_back("line " + line_of(text, mistake.byte) + ": it is no JSON; was the file cut short or edited?");
    } catch (const Json::exception &mistake) { /* a number that nothing holds */
        errors->push_back(std::string("the file: ") + mistake.what());
    }
    return {};
}

} // namespace keel

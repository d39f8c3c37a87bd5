/*
 * What a person can set of a gateway: the keys of keelhost.toml, what each takes, and what it is in the data model.
 */
#ifndef HOST_CONFIG_BOX_KEYS_H
#define HOST_CONFIG_BOX_KEYS_H

#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/config/toml_file.h"
#include "host/model/model.h"

namespace keel {

/* Those with a meaning of their own for who starts the host. */
constexpr const char *mode_key = "service.mode";
constexpr const char *iptv_interface_key = "iptv.interface";
constexpr const char *iptv_address_key = "iptv.address";
constexpr const char *data_interface_key = "data.interface";
constexpr const char *lan_bridge_key = "lan.bridge";
constexpr const char *lan_address_key = "lan.address";
constexpr const char *wan_mac_key = "wan.mac";

/* One parameter of the data model with its value. */
struct Write {
    std::string path;
    std::string parameter;
    Value value;
};

struct BoxKey {
    struct Place {
        const char *path;
        const char *parameter;
        Type type;
    };

    const char *name;    /* with its table: "lan.address" */
    const char *allowed; /* in words */
    /* A value as the file has it -> its text, which is the same for whatever means the same; nothing for what is not
     * allowed. */
    std::optional<std::string> (*read)(const TomlEntry &entry);
    Place place;                                          /* the parameter that it is; null for none */
    std::vector<Write> (*write)(const std::string &text); /* where it is several */

    /* What a text of read() is in the model; nothing where it is no parameter. */
    std::vector<Write> writes(const std::string &text) const;
    /* Whether it is; if not, a change of it is in force only after a restart. */
    bool in_model() const { return place.path || write; }
};

/* Those of one table stand together. */
std::span<const BoxKey> box_keys();
/* Null for none. */
const BoxKey *find_box_key(const std::string &name);
/* Whether the kernel takes it for a network device, and a shell leaves it as it is. */
bool is_device_name(const std::string &name);

/* What the data model says before anybody has set anything. */
struct BoxDefaults {
    struct Default {
        std::string text; /* as the file would say it; of the keys that checks look at */
        std::vector<Write> writes;
    };
    std::map<std::string, Default> keys; /* those that this model has a place for */
    std::vector<std::string> interfaces; /* all of the model's */
};
/* Of a model as its file has it. */
BoxDefaults box_defaults(const Model &model);

} // namespace keel

#endif

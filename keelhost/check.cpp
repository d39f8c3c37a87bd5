#include "keelhost/check.h"

#include <cstdio>
#include <vector>

#include "host/base/uv_loop.h"
#include "host/config/box_config.h"
#include "host/linux/readiness.h"
#include "host/model/model.h"

namespace keel {

namespace {

constexpr const char *firewall_script = "/usr/bin/zep_firewall.sh"; /* where the plug-in starts it */

MachineNeeds needs_of(const CheckOptions &options, const BoxConfig &config, const BoxDefaults &defaults) {
    MachineNeeds needs;
    needs.iptv_device = config.text(iptv_interface_key, defaults);
    needs.data_device = config.text(data_interface_key, defaults);
    needs.lan_bridge = config.text(lan_bridge_key, defaults);
    needs.lan_address = parse_network(config.text(lan_address_key, defaults));
    const std::string mode = config.text(mode_key, defaults);
    needs.forwards = mode != "Bridged";
    needs.uses_script = mode.starts_with("Simplified");
    needs.programs = {"sh", "iptables", "ebtables", options.udhcpc, options.igmpproxy};
    needs.firewall_script = firewall_script;
    return needs;
}

std::vector<Finding> findings(const CheckOptions &options) {
    UvLoop loop;
    Model model(loop);
    try {
        model.load_file(options.model);
    } catch (const ModelError &mistake) {
        return {{true, mistake.what()}};
    }
    const BoxDefaults defaults = box_defaults(model);
    const BoxConfig config = options.settings.empty() ? BoxConfig{} : read_box_config(options.settings, defaults);
    std::vector<Finding> all;
    for (const std::string &mistake : config.errors)
        all.push_back({true, mistake});
    if (all.empty()) /* else nobody knows what the machine shall have */
        all = look_at_machine(needs_of(options, config, defaults));
    return all;
}

} // namespace

int check(const CheckOptions &options) {
    int errors = 0;
    const auto all = findings(options);
    for (const Finding &one : all) {
        errors += one.error ? 1 : 0;
        std::printf("%s: %s\n", one.error ? "error" : "warning", one.text.c_str());
    }
    if (all.empty())
        std::puts("The settings are right, and this machine has what they need.");
    return errors ? 1 : 0;
}

} // namespace keel

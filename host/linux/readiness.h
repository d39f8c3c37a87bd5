/*
 * Whether this machine has what the host builds on, and does not make itself.
 */
#ifndef HOST_LINUX_READINESS_H
#define HOST_LINUX_READINESS_H

#include <optional>
#include <string>
#include <vector>

#include "host/base/text_forms.h"

namespace keel {

struct MachineNeeds {
    std::string iptv_device;
    std::string data_device;
    std::string lan_bridge;
    std::optional<Network> lan_address;
    bool forwards = true;     /* the mode passes packets between LAN and operator */
    bool uses_script = false; /* the mode has its rules from the firewall script, for the data device */
    std::vector<std::string> programs;
    std::string firewall_script;
};

struct Finding {
    bool error; /* else a warning: the service can be given, or part of it */
    std::string text;
};

/* What is missing, each with what to do about it. Looks, and changes nothing; needs no rights. */
std::vector<Finding> look_at_machine(const MachineNeeds &needs);

} // namespace keel

#endif

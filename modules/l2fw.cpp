/*
 * Layer-2 isolation: four ebtables chains that follow the interfaces which the network model reports, in every mode.
 */
#include "modules/l2fw.h"

#include "frame/module_util.h"
#include "frame/trace.h"

#define EBTABLES "/usr/sbin/ebtables"

L2fwRule zep_l2fw[l2fw_rules] = {
    {nullptr, "iptv", "netdev && vlan && !zep-dhcp-vlan", "down", "nat", "POSTROUTING_No_DHCP",
     "-p 0x800 --ip-protocol udp --ip-destination-port 67:68", zep_l2fw_dropOutput},
    {nullptr, "iptv", "netdev && zep-no-igmp", "down", "nat", "POSTROUTING_No_IGMP",
     "-d 01:00:5e:00:00:00/ff:ff:ff:00:00:00", zep_l2fw_dropOutput},
    {nullptr, "lo", "netdev && zep-only-igmp", "all", "nat", "POSTROUTING_Only_IGMP",
     "-d ! 01:00:5e:00:00:00/ff:ff:ff:00:00:00", zep_l2fw_dropOutput},
    {nullptr, "iptv", "(vlan || atm) && netdev && up && !zep-lan-iptv", "down", "filter", "FORWARD_Isolation", "",
     zep_l2fw_dropBetween},
};

namespace {

const char zone[] = "l2fw";

ModuleDescriptor descriptor = {"l2fw", zep_l2fw_start, zep_l2fw_stop, {}};

ZEP_REGISTER_MODULE(zep_order_l2fw, descriptor)

void flush(const L2fwRule *row) {
    char command[path_size];
    format_text(command, EBTABLES " -t %s -F %s", row->table, row->chain);
    zep_l2fw_system(command);
}

/* An element's interface name, or null for one that has none. */
const char *text_of(variant_list_iterator_t *element) {
    const string_t *text = variant_da_string(variant_list_iterator_data(element));
    return text ? string_buffer(text) : nullptr;
}

/* Likewise, and null for one that must not reach a shell line. */
const char *name_of(variant_list_iterator_t *element) {
    const char *name = text_of(element);
    return is_interface_name(name) ? name : nullptr;
}

/* Likewise; who is left out of the rules is told, once in each run over the list. */
const char *name_or_trace(const L2fwRule *row, variant_list_iterator_t *element) {
    const char *name = name_of(element);
    const char *text = text_of(element);
    if (!name && !is_empty(text))
        ZEP_ERROR(zone, "Invalid intf %s has no rule in %s", text, row->chain);
    return name;
}

} // namespace

int zep_l2fw_start(void) {
    weft_client_initialize(rig_getHull(), nullptr);
    for (L2fwRule &row : zep_l2fw)
        row.query = weft_openQuery_getIntfs(row.interface, "l2fw", row.flags, row.traversal, zep_l2fw_onIntfs, &row);
    return 1;
}

void zep_l2fw_stop(void) {
    for (L2fwRule &row : zep_l2fw) {
        weft_closeQuery(row.query);
        row.query = nullptr;
        flush(&row);
    }
    weft_client_cleanup();
}

bool zep_l2fw_system(const char *command) {
    if (system(command) == 0)
        return true;
    ZEP_ERROR(zone, "Command[%s] failed", command);
    return false;
}

void zep_l2fw_onIntfs(const variant_t *result, void *data) {
    auto *row = static_cast<L2fwRule *>(data);
    const variant_list_t *list = variant_da_list(result);
    if (!row || !list)
        return;
    flush(row);
    if (row->handler)
        row->handler(row, list);
}

void zep_l2fw_dropOutput(const L2fwRule *row, const variant_list_t *list) {
    if (!row || !list)
        return;
    for (auto *it = variant_list_first(list); it; it = variant_list_iterator_next(it)) {
        const char *name = name_or_trace(row, it);
        if (!name)
            continue;
        char command[path_size];
        format_text(command, EBTABLES " -t %s -A %s %s -j DROP -o %s", row->table, row->chain, row->ruleArgs, name);
        zep_l2fw_system(command);
    }
}

void zep_l2fw_dropBetween(const L2fwRule *row, const variant_list_t *list) {
    if (!row || !list || variant_list_size(list) < 2)
        return;
    for (auto *from = variant_list_first(list); from; from = variant_list_iterator_next(from)) {
        const char *input = name_or_trace(row, from);
        for (auto *to = variant_list_first(list); to; to = variant_list_iterator_next(to)) {
            const char *output = name_of(to);
            if (!input || !output || strcmp(input, output) == 0)
                continue;
            char command[path_size];
            format_text(command, EBTABLES " -t %s -A %s %s -j DROP -i %s -o %s", row->table, row->chain, row->ruleArgs,
                        input, output);
            zep_l2fw_system(command);
        }
    }
}

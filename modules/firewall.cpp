#include "modules/firewall.h"

#include "frame/trace.h"
#include "platform/weft.h"

struct StbItem {
    llist_iterator_t link; /* in stbList */
    char *key;             /* owned */
    char *address;         /* owned */
    bool rulesApplied;     /* the script was started for it */
};

char cur_intf[cur_intf_size];

namespace {

const char zone[] = "firewall"; /* also the owner of the writes */
const char script[] = "/usr/bin/zep_firewall.sh";

roster_query_t *stbQuery = nullptr;
weft_query_t *intfQuery = nullptr;
process_t *mainProcess = nullptr;
process_t *auxAddProcess = nullptr; /* runs once at a time; the others wait for its exit */
process_t *auxDelProcess = nullptr;
LoadedList stbList; /* in order of arrival */

ModuleContext context = {"firewall",
                         nullptr,
                         {ServiceMode::Bridged, IptvInterfaceMode::Dedicated, nullptr},
                         zep_firewall_init,
                         zep_firewall_cleanup};

ModuleDescriptor descriptor = {"firewall", zep_firewall_start, zep_firewall_stop, {}};

ZEP_REGISTER_MODULE(zep_order_firewall, descriptor)

const char *or_null(const char *text) {
    return text ? text : "(null)";
}

void destroy(process_t *&process) {
    if (process)
        process_destroy(process);
    process = nullptr;
}

void destroy_processes() {
    destroy(mainProcess);
    destroy(auxAddProcess);
    destroy(auxDelProcess);
}

void remove_item(StbItem *item) {
    llist_iterator_take(&item->link);
    free(item->key);
    free(item->address);
    free(item);
}

/* The STBs outlive the cleanup; the plug-in's end, or the next init, forgets them. */
__attribute__((destructor)) void forget_stbs() {
    for (StbItem *item : RecordsOf<StbItem>(&stbList))
        remove_item(item);
}

void create_processes() {
    connection_t *connection = hull_connection(rig_getHull());
    mainProcess = process_create(connection);
    auxAddProcess = process_create(connection);
    process_setExitHandler(auxAddProcess, zep_set_firewall_process_exit_handler);
    auxDelProcess = process_create(connection);
}

void follow_stbs_and_data_interface() {
    zep_firewall_setPolicy("Off");
    destroy_processes();
    create_processes();
    forget_stbs();
    llist_initialize(&stbList);
    if (!stbQuery)
        stbQuery = roster_query_open("lan and stb and .Active==true", "zep_firewall_stb", zep_firewall_updateSTBList);
    if (intfQuery)
        return;
    intfQuery = weft_openQuery_luckyIntf("data", "firewall", "ipv4", weft_traverse_down, callback_intf, nullptr);
    if (!intfQuery)
        ZEP_ERROR(zone, "Unable to open Weft query to get addresses");
}

/* The text of an entry of a device's data, or null. */
const char *entry_text(const variant_t *map, const char *name) {
    return variant_da_char(variant_map_iterator_data(variant_map_find(variant_da_map(map), name)));
}

/* The last address of the device's list of addresses, borrowed, or null. */
const char *address_of(const variant_t *device) {
    const char *address = nullptr;
    variant_map_iterator_t *entry = variant_map_find(variant_da_map(device), "IPv4Address");
    const variant_list_t *list = variant_da_list(variant_map_iterator_data(entry));
    for (auto *it = variant_list_first(list); it; it = variant_list_iterator_next(it)) {
        const variant_t *element = variant_list_iterator_data(it);
        if (variant_type(element) != variant_type_map)
            break;
        address = entry_text(element, "Address");
    }
    return address;
}

StbItem *find_item(const char *key) {
    for (StbItem *item : RecordsOf<StbItem>(&stbList))
        if (item->key && strcmp(item->key, key) == 0)
            return item;
    return nullptr;
}

void serve(StbItem *item) {
    zep_firewall_ConfigureForwardService(item->address, true);
    item->rulesApplied = true;
}

} // namespace

int zep_firewall_start(void) {
    return zep_module_start(&context);
}

void zep_firewall_stop(void) {
    zep_module_stop(&context);
}

void zep_firewall_init(ServiceConfig *config) {
    roster_initialize(rig_getHull(), rig_getSysbus());
    memset(cur_intf, 0, sizeof cur_intf);
    if (!weft_client_initialize(rig_getHull(), rig_getSysbus()))
        ZEP_ERROR(zone, "Unable to initialize Weft client interface");
    if (!config || config->mode == ServiceMode::Bridged || config->mode == ServiceMode::Invalid)
        return;
    if (config->mode == ServiceMode::Routed)
        zep_firewall_setPolicy("Firewall.Chain.IPTV_Out");
    else
        follow_stbs_and_data_interface();
}

void zep_firewall_setPolicy(const char *value) {
    if (!value)
        return;
    ZEP_INFO(zone, "Set Firewall.Policy.IPTV2Lan.{ReverseChain=%s}", value);
    request_t *request = keel_request_create_setObject("Firewall.Policy.IPTV2Lan");
    add_text(request, "ReverseChain", value);
    keel_request_push(zone, rig_getSysbus(), request, "Set Firewall.Policy.IPTV2Lan.{ReverseChain=%s}", value);
}

void callback_intf(const variant_t *result, void *) {
    const char *name = variant_da_char(result);
    if (!name || strcmp(name, cur_intf) == 0)
        return;
    if (*cur_intf) {
        ZEP_INFO(zone, "Delete Main rules");
        if (!process_start(mainProcess, script, "main_rules", "D", cur_intf, nullptr))
            ZEP_ERROR(zone, "iptabes delete for main_rules is ko");
    }
    if (*name) {
        ZEP_INFO(zone, "Add Main rules");
        if (!process_start(mainProcess, script, "main_rules", "A", name, nullptr))
            ZEP_ERROR(zone, "iptabes creation for main_rules is ko");
    }
    copy_text(cur_intf, name);
}

void zep_firewall_ConfigureForwardService(const char *address, bool add) {
    if (add) {
        ZEP_INFO(zone, "Add Firewall rules in chain FORWARD_ZEP_Services for %s", address);
        if (!process_start(auxAddProcess, script, "aux_rules", "A", address, nullptr))
            ZEP_ERROR(zone, "iptables add STB port ko");
    } else {
        ZEP_INFO(zone, "Delete Firewall rules in chain FORWARD_ZEP_Services for %s", address);
        if (!process_start(auxDelProcess, script, "aux_rules", "D", address, nullptr))
            ZEP_ERROR(zone, "iptables delete STB rules rules ko");
    }
}

void zep_firewall_updateSTBList(roster_query_t *, const char *key, const variant_t *device, int action) {
    const char *address = address_of(device);
    if (action == roster_action_match) {
        ZEP_INFO(zone, "New STB found %s ip = %s", or_null(key), or_null(address));
        StbItem *item = address && key ? zep_firewall_addSTBList(key, address) : nullptr;
        if (!item)
            return;
        if (process_isRunning(auxAddProcess)) {
            ZEP_INFO(zone, "Script is busy");
            return;
        }
        item->rulesApplied = true;
        zep_firewall_ConfigureForwardService(address, true);
    } else if (action == roster_action_unmatch) {
        ZEP_INFO(zone, "STB removed");
        StbItem *item = key ? find_item(key) : nullptr;
        if (!item)
            return;
        zep_firewall_ConfigureForwardService(item->address, false);
        remove_item(item);
    }
}

StbItem *zep_firewall_addSTBList(const char *key, const char *address) {
    auto *item = static_cast<StbItem *>(calloc(1, sizeof(StbItem)));
    if (!item) {
        ZEP_ERROR(zone, "couldn't allocate memory for item");
        return nullptr;
    }
    llist_iterator_initialize(&item->link, item);
    item->key = strdup(key);
    item->address = strdup(address);
    llist_append(&stbList, &item->link);
    return item;
}

bool zep_set_firewall_process_exit_handler(process_t *) {
    for (StbItem *item : RecordsOf<StbItem>(&stbList))
        if (!item->rulesApplied) {
            ZEP_INFO(zone, "set rules in handler for %s", or_null(item->address));
            serve(item);
            break;
        }
    return true;
}

void zep_firewall_cleanup(void) {
    if (stbQuery)
        roster_query_close(stbQuery);
    stbQuery = nullptr;
    destroy_processes();
    if (intfQuery)
        weft_closeQuery(intfQuery);
    intfQuery = nullptr;
}

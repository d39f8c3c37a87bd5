#include "routed/dhcp_client.h"

#include "frame/trace.h"
#include "platform/weft.h"

namespace {

const char zone[] = "dhcp"; /* also the owner of the writes */

int refuse_name() {
    ZEP_ERROR(zone, "Invalid DHCP client");
    return 0;
}

/* A disabled instance, there before anything is linked to it. */
void add_interface(const char *name) {
    request_t *request = keel_request_create_addInstance("Weft.Intf.%s", name);
    add_bool(request, "Enable", false);
    keel_request_invoke(zone, rig_getSysbus(), request, "Add Weft.Intf.%s", name);
    request_destroy(request);
}

/* The gateway's own IPTV client tells what this one asks for. */
void copy_dhcp_mib(const char *name) {
    variant_map_t *mibs = weft_getMIBs("dhcp_iptv", "dhcp", "", weft_traverse_this);
    variant_map_t *by_interface = variant_da_map(variant_map_iterator_data(variant_map_find(mibs, "dhcp")));
    variant_map_iterator_t *values = variant_map_find(by_interface, "dhcp_iptv");
    if (values && variant_map_iterator_setKey(values, name))
        weft_setMIBs(name, mibs);
    else
        ZEP_WARNING(zone, "No dhcp settings of dhcp_iptv to copy to %s", name);
    variant_map_cleanup(mibs);
    free(mibs);
}

const char *object_address(const object_t *object, const char *parameter) {
    if (!object) {
        ZEP_WARNING(zone, "NULL DHCP client object");
        return nullptr;
    }
    return object_text(object, parameter);
}

} // namespace

int zep_dhcp_client_create(const char *name, const char *clientId) {
    if (!name)
        return refuse_name();
    add_interface(name);
    {
        const OwnedText device(weft_luckyIntf("iptv", "netdev", weft_traverse_down));
        if (device.get())
            weft_linkIntfs(name, device.get());
        else
            ZEP_WARNING(zone, "No network device below iptv to link %s over", name);
    }
    weft_linkIntfs("iptv", name);
    weft_setFlag(name, "dhcp logical zep-dhcp", "", weft_traverse_this);
    copy_dhcp_mib(name);
    if (clientId) {
        char path[path_size];
        format_text(path, "Weft.Intf.%s.SentOption.61", name);
        LocalMap map;
        variant_map_addChar(map.get(), "Value", clientId);
        hull_client_set_object(rig_getSysbus(), path, map.get());
    }
    ZEP_INFO(zone, "New dhcp client created : %s", name);
    return 1;
}

int zep_dhcp_client_start_stop(const char *name, uint8_t enable) {
    if (!name)
        return refuse_name();
    char path[path_size];
    format_text(path, "Weft.Intf.%s", name);
    LocalMap map;
    variant_map_addBool(map.get(), "Enable", enable != 0);
    return hull_client_set_object(rig_getSysbus(), path, map.get());
}

const char *zep_dhcp_client_get_reqoption(const char *name, uint16_t option) {
    if (is_empty(name))
        return nullptr;
    char path[path_size];
    format_text(path, "Weft.Intf.%s.ReqOption.%d", name, option);
    return variant_da_char(parameter_getValue(hull_client_get_parameter(rig_getSysbus(), path, "Value")));
}

const char *zep_dhcp_client_get_ipaddress(const object_t *object) {
    return object_address(object, "IPAddress");
}

const char *zep_dhcp_client_get_subnetmask(const object_t *object) {
    return object_address(object, "SubnetMask");
}

int zep_dhcp_client_delete(const char *name) {
    if (!name)
        return refuse_name();
    request_t *request = keel_request_create_deleteInstance("Weft.Intf.%s", name);
    keel_request_push(zone, rig_getSysbus(), request, "Delete Weft.Intf.%s", name);
    return 1;
}

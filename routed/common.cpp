#include "routed/common.h"

#include "frame/trace.h"

namespace {

enum { value_attributes = 4101, holder_capacity = 32 };

const char zone[] = "common"; /* also the owner of the writes */
const char settings_path[] = "Keel.Zephyrin";
const char routes_path[] = "Keel.Zephyrin.ClasslessStaticRoute";

bool take_value(request_t *request, reply_item_t *item, sysbus_t *, sysbus_t *, void *data) {
    auto *holder = static_cast<string_t *>(data);
    if (reply_item_type(item) != reply_type_object || !holder)
        return true;
    const char *name = request_parameterName(request_firstParameter(request));
    const char *text = object_text(reply_item_object(item), name);
    string_cleanup(holder);
    string_initialize(holder, holder_capacity);
    string_appendChar(holder, text);
    return true;
}

/* Fetches one value; without an answer it is the empty text. */
void fetch_server(const char *parameter, string_t *holder, char *buffer) {
    request_t *request = request_create_getObject(settings_path, 0, value_attributes);
    request_addParameter(request, parameter, nullptr);
    request_setData(request, holder);
    request_setReplyItemHandler(request, take_value);
    keel_request_invoke(zone, rig_getSysbus(), request, "Get Keel.Zephyrin.%s", parameter);
    request_destroy(request);
    const char *text = string_buffer(holder);
    strncpy(buffer, text ? text : "", server_value_size - 1);
}

int write_value(const char *parameter, const char *value) {
    request_t *request = keel_request_create_setObject("%s", settings_path);
    add_text(request, parameter, value);
    keel_request_push(zone, rig_getSysbus(), request, "Set Keel.Zephyrin.%s=%s", parameter, value);
    return 1;
}

} // namespace

int zep_common_get_zephyrin_static_routes(variant_t *list) {
    if (!list)
        return 0;
    int done = 1;
    object_t *instance = object_firstInstance(hull_client_get_object(rig_getSysbus(), routes_path));
    for (; instance; instance = object_nextInstance(instance)) {
        variant_map_t values;
        if (!object_getValues(instance, &values)) {
            ZEP_ERROR(zone, "Failed to get classless static route");
            done = 0;
            continue;
        }
        if (!variant_list_addMapCopy(variant_da_list(list), &values)) {
            ZEP_ERROR(zone, "Add map failed");
            done = 0;
        }
        variant_map_cleanup(&values);
    }
    return done;
}

int zep_common_add_zephyrin_static_route(const variant_map_t *map) {
    static const char *const keys[] = {"Destination", "PrefixLength", "Router"};
    request_t *request = request_create_addInstance(routes_path, 0, nullptr, 1);
    for (const char *key : keys)
        if (const variant_map_iterator_t *entry = variant_map_find(map, key))
            request_addParameter(request, variant_map_iterator_key(entry), variant_map_iterator_data(entry));
    return keel_request_push(zone, rig_getSysbus(), request, "Add Keel.Zephyrin.ClasslessStaticRoute instance");
}

void zep_common_flush_zephyrin_static_routes(void) {
    object_t *instance = object_firstInstance(hull_client_get_object(rig_getSysbus(), routes_path));
    while (instance) {
        object_t *next = object_nextInstance(instance);
        const OwnedText path(object_pathChar(instance, 1));
        request_t *request = keel_request_create_deleteInstance("%s", path.get());
        keel_request_push(zone, rig_getSysbus(), request, "Delete %s", path.get());
        instance = next;
    }
    hull_cacheClear(rig_getHull());
}

void zep_common_set_zephyrin_static_routes(const variant_t *list) {
    zep_common_flush_zephyrin_static_routes();
    auto *it = variant_list_first(variant_da_list(list));
    for (; it; it = variant_list_iterator_next(it))
        zep_common_add_zephyrin_static_route(variant_da_map(variant_list_iterator_data(it)));
}

void zep_common_get_zephyrin_ntpwwwserver(char *ntp, char *www) {
    string_t ntp_holder = {};
    string_t www_holder = {};
    if (ntp)
        fetch_server("NTPServer", &ntp_holder, ntp);
    if (www)
        fetch_server("WWWServer", &www_holder, www);
    string_cleanup(&ntp_holder);
    string_cleanup(&www_holder);
}

int zep_common_set_zephyrin_ntpwwwserver(const char *ntp, const char *www) {
    int written = 0;
    if (ntp)
        written |= write_value("NTPServer", ntp);
    if (www)
        written |= write_value("WWWServer", www);
    return written;
}

void zep_common_set_zephyrin_status(uint32_t status) {
    static const char *const texts[] = {"Enabled", "Disabled", "Error"};
    write_value("Status", texts[status]);
}

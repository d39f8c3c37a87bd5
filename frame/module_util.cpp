#include "frame/module_util.h"

#include "frame/trace.h"
#include "platform/weft.h"

namespace {

enum {
    keel_attributes = 133645,
    notification_disabled = 101, /* "Enable" of the settings turned false, or their mode is left */
    notification_enabled = 102   /* the settings are in force, or changed */
};

const char settings_path[] = "Keel.Zephyrin";

void take_object(ModuleContext *context, object_t *keel) {
    object_t *settings = object_getObject(keel, "Zephyrin", 1, nullptr);
    if (!variant_bool(object_parameterValue(settings, "Enable")))
        return;
    context->config.mode = zep_module_parseMode(object_text(settings, "Mode"));
    context->config.interface = zep_module_parseInterface(object_text(keel, "IPTVMode"));
    if (context->config.mode != ServiceMode::SimplifiedV2)
        context->init(&context->config);
}

void take_notification(ModuleContext *context, const notification_t *notification) {
    const char *path = notification_objectPath(notification);
    if (!path || strcmp(path, settings_path) != 0)
        return;
    const uint32_t type = notification_type(notification);
    if (type == notification_disabled) {
        context->cleanup();
    } else if (type == notification_enabled) {
        ServiceConfig *config = &context->config;
        config->mode = zep_module_parseMode(notification_text(notification, "Mode"));
        config->interface = zep_module_parseInterface(notification_text(notification, "Interface"));
        free(config->wanMode);
        config->wanMode =
            variant_char(notification_parameter_variant(notification_getParameter(notification, "WanMode")));
        context->init(config);
    }
}

} // namespace

int zep_module_start(ModuleContext *context) {
    if (!context)
        return 0;
    ZEP_INFO(context->name, "%s module starting", context->name);
    weft_client_initialize(rig_getHull(), nullptr);
    if (context->request)
        return 1;
    context->request = request_create_getObject("Keel", 2, keel_attributes);
    request_setReplyItemHandler(context->request, zep_module_replyHandler);
    request_setData(context->request, context);
    hull_waitSendRequest(rig_getHull(), rig_getSysbus(), context->request);
    return 1;
}

void zep_module_stop(ModuleContext *context) {
    if (!context)
        return;
    ZEP_INFO(context->name, "%s module stopping", context->name);
    request_destroy(context->request);
    context->request = nullptr;
    context->cleanup();
    free(context->config.wanMode);
    context->config.wanMode = nullptr;
    keel_request_flush(context->name);
    weft_client_cleanup();
}

bool zep_module_replyHandler(request_t *, reply_item_t *item, sysbus_t *, sysbus_t *, void *data) {
    auto *context = static_cast<ModuleContext *>(data);
    if (!context)
        return true;
    const uint32_t type = reply_item_type(item);
    if (type == reply_type_object)
        take_object(context, reply_item_object(item));
    else if (type == reply_type_notification)
        take_notification(context, reply_item_notification(item));
    return true;
}

ServiceMode zep_module_parseMode(const char *text) {
    static const char *const names[] = {"Bridged", "Routed", "Simplified", "SimplifiedV2"};
    return static_cast<ServiceMode>(index_of_text(names, text));
}

IptvInterfaceMode zep_module_parseInterface(const char *text) {
    static const char *const names[] = {"Dedicated", "Internet"};
    return static_cast<IptvInterfaceMode>(index_of_text(names, text));
}

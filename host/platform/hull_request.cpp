/*
 * Requests, replies and notifications as the plug-in handles them; what becomes of a request is the bus's affair.
 */
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/base/trace.h"
#include "host/platform/bus.h"
#include "platform/hull.h"

extern "C" {

/* -------------------------------------------------------------------------------------------------- requests */

request_t *request_create_getObject(const char *path, int32_t depth, uint32_t attributes) {
    request *fresh = keel::bus.create(request::Kind::Get, path ? path : "");
    if (fresh) {
        fresh->depth = depth;
        fresh->attributes = attributes;
    }
    return fresh;
}

request_t *request_create_addInstance(const char *parent, uint32_t, const char *key, uint32_t) {
    return keel::bus.create(request::Kind::Add, parent ? parent : "",
                            key ? std::optional<std::string>(key) : std::nullopt);
}

bool request_addParameter(request_t *request, const char *name, const variant_t *value) {
    if (!request || !name)
        return false;
    auto one = std::make_unique<request_parameter>();
    one->name = name;
    one->valued = value != nullptr;
    if (value && !variant_copy(&one->value, value))
        return false;
    request->parameters.push_back(std::move(one));
    return true;
}

void request_setData(request_t *request, void *data) {
    if (request)
        request->data = data;
}

void *request_data(const request_t *request) {
    return request ? request->data : nullptr;
}

void request_setReplyItemHandler(request_t *request, request_reply_item_handler_t handler) {
    if (request)
        request->on_item = handler;
}

void request_setDoneHandler(request_t *request, request_done_handler_t handler) {
    if (request)
        request->on_done = handler;
}

uint32_t request_attributes(const request_t *request) {
    return request ? request->attributes : 0;
}

void request_setAttributes(request_t *request, uint32_t attributes) {
    if (request)
        request->attributes = attributes;
}

const char *request_path(const request_t *request) {
    return request ? request->path.c_str() : nullptr;
}

reply_t *request_reply(request_t *request) {
    return request ? &request->answer : nullptr;
}

request_parameter_t *request_firstParameter(const request_t *request) {
    return request && !request->parameters.empty() ? request->parameters.front().get() : nullptr;
}

const char *request_parameterName(const request_parameter_t *parameter) {
    return parameter ? parameter->name.c_str() : nullptr;
}

void request_destroy(request_t *request) {
    keel::bus.destroy(request);
}

bool hull_waitSendRequest(hull_t *, sysbus_t *, request_t *request) {
    return keel::bus.send(request);
}

bool hull_sendRequest(hull_t *, sysbus_t *, request_t *request) {
    return keel::bus.send(request);
}

/* --------------------------------------------------------------------------------------------------- replies */

uint32_t reply_item_type(const reply_item_t *item) {
    return item ? item->type : 0;
}

object_t *reply_item_object(const reply_item_t *item) {
    return item ? item->content.get() : nullptr;
}

notification_t *reply_item_notification(const reply_item_t *item) {
    return item ? item->news.get() : nullptr;
}

uint32_t reply_item_error(const reply_item_t *item) {
    return item ? item->error : 0;
}

const char *reply_item_errorDescription(const reply_item_t *item) {
    return item ? item->description.c_str() : "";
}

const char *reply_item_errorInfo(const reply_item_t *item) {
    return item ? item->info.c_str() : "";
}

reply_item_t *reply_firstItem(const reply_t *reply) {
    return reply && !reply->items.empty() ? reply->items.front().get() : nullptr;
}

reply_item_t *reply_nextItem(const reply_item_t *item) {
    return item ? item->next : nullptr;
}

bool reply_addError(reply_t *reply, uint32_t error, const char *description, const char *info) {
    if (!reply)
        return false;
    keel::trace(keel::Level::Warning, "bus", "%s: error %u: %s: %s", reply->path.c_str(), error, info ? info : "",
                description ? description : "");
    return true;
}

uint32_t notification_type(const notification_t *notification) {
    return notification ? notification->type : 0;
}

const char *notification_objectPath(const notification_t *notification) {
    return notification ? notification->path.c_str() : nullptr;
}

notification_parameter_t *notification_getParameter(const notification_t *notification, const char *name) {
    if (notification && name)
        for (const auto &one : notification->parameters)
            if (one->name == name)
                return one.get();
    return nullptr;
}

const variant_t *notification_parameter_variant(const notification_parameter_t *parameter) {
    return parameter ? &parameter->value : nullptr;
}
}

/*
 * The request helpers of platform/keel.h on the bus.
 */
#include "platform/keel.h"

#include <cstdarg>
#include <optional>
#include <string>

#include "host/base/trace.h"
#include "host/platform/bus.h"

namespace {

constexpr std::size_t max_path = 255;

std::string format_path(const char *format, va_list arguments) {
    return format ? keel::format_text(format, arguments).substr(0, max_path) : std::string();
}

} // namespace

extern "C" {

request_t *keel_request_create_setObject(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    request *fresh = keel::bus.create(request::Kind::Set, format_path(format, arguments));
    va_end(arguments);
    return fresh;
}

request_t *keel_request_create_getObject(const char *format, uint32_t attributes, ...) {
    va_list arguments;
    va_start(arguments, attributes);
    request *fresh = keel::bus.create(request::Kind::Get, format_path(format, arguments));
    va_end(arguments);
    if (fresh)
        fresh->object_items = true;
    return fresh;
}

request_t *keel_request_create_addInstance(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string path = format_path(format, arguments);
    va_end(arguments);
    const auto dot = path.rfind('.');
    if (dot == std::string::npos)
        return nullptr;
    const std::string key = path.substr(dot + 1);
    return keel::bus.create(request::Kind::Add, path.substr(0, dot), key.empty() ? std::nullopt : std::optional(key));
}

request_t *keel_request_create_deleteInstance(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    request *fresh = keel::bus.create(request::Kind::Delete, format_path(format, arguments));
    va_end(arguments);
    return fresh;
}

bool keel_request_push(const char *owner, sysbus_t *, request_t *request, const char *descriptionFormat, ...) {
    if (!request)
        return false;
    va_list arguments;
    va_start(arguments, descriptionFormat);
    keel::bus.push(request, owner ? owner : "", keel::format_text(descriptionFormat, arguments));
    va_end(arguments);
    return true;
}

bool keel_request_invoke(const char *owner, sysbus_t *, request_t *request, const char *descriptionFormat, ...) {
    if (!request)
        return false;
    va_list arguments;
    va_start(arguments, descriptionFormat);
    const std::string description = keel::format_text(descriptionFormat, arguments);
    va_end(arguments);
    return keel::bus.invoke(request, owner ? owner : "", description);
}

/* The order of what is pushed is kept: what others pushed before goes with it. */
void keel_request_flush(const char *) {
    keel::bus.carry_out_pending();
}
}

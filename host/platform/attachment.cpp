#include "host/platform/plugin.h"

#include <cstdlib>
#include <utility>

#include "host/base/trace.h"
#include "host/platform/attachment.h"

namespace keel {

namespace {

struct Attachment {
    Loop &loop;
    InterfaceGraph &graph;
    ProcessRunner &runner;
};

std::unique_ptr<Attachment> attachment;

struct Release {
    const char *what;
    std::function<std::size_t()> release;
};

/* A function's static, since units register from wherever they are first used. */
std::vector<Release> &releases() {
    static std::vector<Release> all;
    return all;
}

} // namespace

void host_attach(Loop &loop, InterfaceGraph &graph, ProcessRunner &runner) {
    attachment = std::make_unique<Attachment>(Attachment{loop, graph, runner});
}

void host_detach() {
    if (!attachment)
        return;
    const auto all = std::exchange(releases(), {});
    for (const Release &one : all)
        if (const std::size_t left = one.release())
            trace(Level::Warning, "host", "the plug-in left %zu %s open", left, one.what);
    attachment.reset();
}

bool host_attached() {
    return attachment != nullptr;
}

static Attachment &attached() {
    if (!attachment)
        std::abort(); /* a plug-in call outside host_attach() and host_detach() */
    return *attachment;
}

Loop &host_loop() {
    return attached().loop;
}

InterfaceGraph &host_graph() {
    return attached().graph;
}

Model &host_model() {
    return attached().graph.model();
}

ProcessRunner &host_runner() {
    return attached().runner;
}

void host_on_detach(const char *what, std::function<std::size_t()> release) {
    releases().push_back({what, std::move(release)});
}

void to_variant(Type type, const Value &value, variant_t *variant) {
    variant_initialize(variant, variant_type_unknown);
    if (type == Type::Text) {
        variant_setChar(variant, std::get<std::string>(value).c_str());
        return;
    }
    if (type == Type::Bool) {
        variant_setBool(variant, std::get<bool>(value));
        return;
    }
    const std::int64_t number = std::get<std::int64_t>(value);
    switch (type) {
    case Type::Int32:
        variant_setInt32(variant, static_cast<std::int32_t>(number));
        break;
    case Type::UInt8:
        variant_setUInt8(variant, static_cast<std::uint8_t>(number));
        break;
    case Type::UInt16:
        variant_setUInt16(variant, static_cast<std::uint16_t>(number));
        break;
    case Type::UInt32:
        variant_setUInt32(variant, static_cast<std::uint32_t>(number));
        break;
    default:
        variant_setUInt64(variant, static_cast<std::uint64_t>(number));
    }
}

std::optional<Value> from_variant(const variant_t *variant) {
    switch (variant_type(variant)) {
    case variant_type_string:
        return Value(std::string(variant_da_char(variant)));
    case variant_type_bool:
        return Value(variant->as.boolean);
    case variant_type_int8:
    case variant_type_int16:
    case variant_type_int32:
    case variant_type_int64:
        return Value(variant->as.integer);
    case variant_type_uint8:
    case variant_type_uint16:
    case variant_type_uint32:
    case variant_type_uint64:
        return Value(static_cast<std::int64_t>(variant->as.cardinal));
    default:
        return std::nullopt;
    }
}

} // namespace keel

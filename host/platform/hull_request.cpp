/*
 * Requests, replies and watches. What the plug-in sends waits in one queue and is carried out on the model in order;
 * what comes of it waits in another and is handed to the handlers in order.
 */
#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/base/trace.h"
#include "host/platform/attachment.h"
#include "host/platform/hull_object.h"
#include "platform/keel.h"

using namespace keel;

struct notification_parameter {
    std::string name;
    variant_t value{};
};

struct notification {
    std::uint32_t type = 0;
    std::string path;
    std::vector<std::unique_ptr<notification_parameter>> parameters;

    ~notification() {
        for (const auto &one : parameters)
            variant_cleanup(&one->value);
    }
};

struct reply_item {
    std::uint32_t type = 0;
    std::unique_ptr<object> content;
    std::unique_ptr<notification> news;
    std::uint32_t error = 0;
    std::string description;
    std::string info;
    reply_item *next = nullptr; /* in the reply */
};

struct reply {
    std::vector<std::unique_ptr<reply_item>> items;
    std::string path; /* of the request, for traces */
};

struct request_parameter {
    std::string name;
    variant_t value{};
    bool valued = false;
};

struct request {
    enum class Kind { Get, Set, Add, Delete };

    Kind kind = Kind::Get;
    std::string path; /* for Add: the parent */
    std::optional<std::string> key;
    int depth = 0;
    std::uint32_t attributes = 0;
    bool object_items = false; /* a watch that reports objects, not notifications */
    std::vector<std::unique_ptr<request_parameter>> parameters;
    void *data = nullptr;
    request_reply_item_handler_t on_item = nullptr;
    request_done_handler_t on_done = nullptr;
    reply answer;
    bool sent = false;
    bool destroyed = false;
    bool watching = false;
    std::uint64_t since = 0; /* the model's latest event when it was answered */

    ~request() {
        for (const auto &one : parameters)
            variant_cleanup(&one->value);
    }

    bool wants_watch() const {
        return kind == Kind::Get && (object_items || (attributes & (request_notify_values | request_notify_added |
                                                                    request_notify_deleted | request_notify_custom)));
    }
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const auto &one : parameters)
            all.push_back(one->name);
        return all;
    }
};

namespace {

enum { error_no_object = 1, error_refused = 2 };

constexpr std::size_t max_path = 255;

using RequestRef = std::shared_ptr<request>;

struct Operation {
    RequestRef target;
    std::string owner;
    std::string description;
    bool pushed;
};

struct Delivery {
    RequestRef target;
    std::unique_ptr<reply_item> item; /* null: the request is complete */
};

std::uint64_t handler_ns = 0;
int handler_depth = 0; /* more than 1 in the handler of a request that a handler invokes */

/* Adds the time of its life to what the handlers took; an inner one's is part of the outer one's. */
class Stopwatch {
public:
    Stopwatch() { ++handler_depth; }
    Stopwatch(const Stopwatch &) = delete;
    Stopwatch &operator=(const Stopwatch &) = delete;
    ~Stopwatch() {
        const auto time = std::chrono::steady_clock::now() - start_;
        if (--handler_depth == 0)
            handler_ns += static_cast<std::uint64_t>(std::chrono::nanoseconds(time).count());
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

class Bus {
public:
    request *adopt(std::unique_ptr<request> fresh) {
        prepare();
        request *raw = fresh.get();
        raw->answer.path = raw->path;
        open_[raw] = RequestRef(std::move(fresh));
        return raw;
    }

    RequestRef find(request *raw) const {
        const auto found = open_.find(raw);
        return found == open_.end() ? nullptr : found->second;
    }

    void destroy(request *raw) {
        const auto found = open_.find(raw);
        if (found == open_.end())
            return;
        found->second->destroyed = true;
        if (found->second->watching)
            watches_.erase(std::find(watches_.begin(), watches_.end(), found->second));
        open_.erase(found);
    }

    bool send(request *raw) {
        const RequestRef target = find(raw);
        if (!target || (target->sent && target->kind != request::Kind::Get))
            return false;
        target->sent = true;
        enqueue({target, "", "", false});
        return true;
    }

    void push(request *raw, std::string owner, std::string description) {
        const RequestRef target = find(raw);
        if (!target)
            return;
        open_.erase(raw);
        target->sent = true;
        enqueue({target, std::move(owner), std::move(description), true});
    }

    bool invoke(request *raw, const std::string &owner, const std::string &description) {
        const RequestRef target = find(raw);
        if (!target)
            return false;
        carry_out_pending();
        target->sent = true;
        std::unique_ptr<reply_item> item = perform(*target);
        const bool done = item->type != reply_type_error;
        if (!done && target->kind != request::Kind::Get)
            report_refusal(owner, description, *item);
        hand_over({target, std::move(item)});
        hand_over({target, nullptr});
        return done;
    }

    void carry_out_pending() {
        while (!pending_.empty()) {
            const Operation operation = std::move(pending_.front());
            pending_.pop_front();
            carry_out(operation);
        }
    }

private:
    void prepare() {
        if (model_ == &host_model())
            return;
        model_ = &host_model();
        watch_ = model_->watch("", [this](const Event &event) { on_event(event); });
        host_on_detach("requests", [this] {
            const std::size_t left = open_.size();
            model_->unwatch(watch_);
            model_ = nullptr;
            for (const auto &[raw, target] : open_)
                target->destroyed = true;
            open_.clear();
            watches_.clear();
            pending_.clear();
            deliveries_.clear();
            return left;
        });
    }

    void enqueue(Operation operation) {
        pending_.push_back(std::move(operation));
        if (pending_.size() == 1)
            host_loop().post([this] { carry_out_pending(); });
    }

    void carry_out(const Operation &operation) {
        request &target = *operation.target;
        std::unique_ptr<reply_item> item = perform(target);
        if (operation.pushed) {
            if (item->type == reply_type_error)
                report_refusal(operation.owner, operation.description, *item);
            return;
        }
        if (target.destroyed)
            return;
        deliver({operation.target, std::move(item)});
        if (target.wants_watch()) {
            if (!target.watching)
                watches_.push_back(operation.target);
            target.watching = true;
            target.since = model_->latest_event();
        } else {
            deliver({operation.target, nullptr});
        }
    }

    static void report_refusal(const std::string &owner, const std::string &description, const reply_item &item) {
        trace(Level::Warning, "bus", "%s: %s refused: %s: %s", owner.c_str(), description.c_str(), item.info.c_str(),
              item.description.c_str());
    }

    static std::unique_ptr<reply_item> object_item(const request &target) {
        auto item = std::make_unique<reply_item>();
        if (const Node *node = host_model().find(target.path)) {
            item->type = reply_type_object;
            const bool listing = target.depth == 0 && node->multi && (target.attributes & request_list_instances);
            item->content = snapshot(*node, listing ? 1 : target.depth, target.names());
        } else {
            item->type = reply_type_error;
            item->error = error_no_object;
            item->description = "no such object";
            item->info = target.path;
        }
        return item;
    }

    /* Does to the model what the request asks; the item says what came of it. */
    static std::unique_ptr<reply_item> perform(request &target) {
        if (target.kind == request::Kind::Get)
            return object_item(target);
        Values values;
        Outcome refusal;
        for (const auto &one : target.parameters) {
            const auto value = one->valued ? from_variant(&one->value) : std::nullopt;
            if (value)
                values[one->name] = *value;
            else
                refusal = Refusal{target.path, "\"" + one->name + "\" has no value"};
        }
        if (!refusal) {
            if (target.kind == request::Kind::Set)
                refusal = host_model().set(target.path, values);
            else if (target.kind == request::Kind::Add)
                refusal = host_model().add(target.path, target.key, values);
            else
                refusal = host_model().remove(target.path);
        }
        auto item = std::make_unique<reply_item>();
        item->type = reply_type_object;
        if (refusal) {
            item->type = reply_type_error;
            item->error = error_refused;
            item->description = refusal->reason;
            item->info = refusal->path;
        }
        return item;
    }

    /* ------------------------------------------------------------------------------------------ watches */

    void on_event(const Event &event) {
        const std::string path = event.path();
        for (const RequestRef &target : watches_)
            if (event.number > target->since)
                tell(target, event, path);
    }

    /* Whether the watched object is the instance at that path or lies in it. Comparing the texts is not enough: there
     * may be an instance "eth1" beside an instance "eth1.20". */
    static bool appears_with(const request &target, const std::string &path) {
        if (target.path != path && !target.path.starts_with(path + "."))
            return false;
        for (const Node *node = host_model().find(target.path); node; node = node->parent)
            if (node->instance && node->path() == path)
                return true;
        return false;
    }

    void tell(const RequestRef &target, const Event &event, const std::string &path) {
        if (event.kind == Event::Kind::Added && appears_with(*target, path)) {
            deliver({target, object_item(*target)});
            target->since = model_->latest_event(); /* the item shows what has happened up to now */
            return;
        }
        const int level = level_below(*target, event, path);
        if (level == 0 && event.kind == Event::Kind::Added) /* it was there, and is gone already */
            return;
        if (level < 0 || (target->depth >= 0 && level > target->depth))
            return;
        if (target->object_items)
            tell_object(target, event, level);
        else
            tell_news(target, event, path);
    }

    /* How many names the event's path has more than the watched one; -1 when it is not below it. */
    static int level_below(const request &target, const Event &event, const std::string &path) {
        if (path == target.path)
            return 0;
        if (!path.starts_with(target.path + "."))
            return -1;
        std::size_t length = 0;
        for (std::size_t i = 0; i < event.steps.size(); ++i) {
            length += event.steps[i].size() + (i ? 1 : 0);
            if (length == target.path.size())
                return static_cast<int>(event.steps.size() - i - 1);
        }
        return -1;
    }

    static bool named(const request &target, const std::string &name) {
        return target.parameters.empty() || std::any_of(target.parameters.begin(), target.parameters.end(),
                                                        [&](const auto &one) { return one->name == name; });
    }

    void tell_object(const RequestRef &target, const Event &event, int level) {
        if (level != 0 || event.kind != Event::Kind::Changed)
            return;
        if (std::none_of(event.values.begin(), event.values.end(),
                         [&](const auto &changed) { return named(*target, changed.first); }))
            return;
        auto item = object_item(*target);
        if (item->type == reply_type_object)
            deliver({target, std::move(item)});
    }

    void tell_news(const RequestRef &target, const Event &event, const std::string &path) {
        const std::uint32_t wanted = target->attributes;
        if (event.kind == Event::Kind::Changed && (wanted & request_notify_values)) {
            for (const auto &[name, value] : event.values) {
                if (!named(*target, name))
                    continue;
                auto item = news_item(notification_value_changed, path);
                add(*item->news, "parameter", Type::Text, Value(name));
                add(*item->news, "newvalue", type_of(path, name, value), value);
                deliver({target, std::move(item)});
            }
        } else if (event.kind == Event::Kind::Added && (wanted & request_notify_added)) {
            deliver({target, news_item(notification_instance_added, path)});
        } else if (event.kind == Event::Kind::Deleted && (wanted & request_notify_deleted)) {
            deliver({target, news_item(notification_instance_deleted, path)});
        } else if (event.kind == Event::Kind::Custom && (wanted & request_notify_custom)) {
            auto item = news_item(event.custom_type, path);
            for (const auto &[name, value] : event.values)
                add(*item->news, name, type_of(path, name, value), value);
            deliver({target, std::move(item)});
        }
    }

    static std::unique_ptr<reply_item> news_item(std::uint32_t type, const std::string &path) {
        auto item = std::make_unique<reply_item>();
        item->type = reply_type_notification;
        item->news = std::make_unique<notification>();
        item->news->type = type;
        item->news->path = path;
        return item;
    }

    /* The parameter's type as long as the object has such a parameter, else one that holds the value. */
    static Type type_of(const std::string &path, const std::string &name, const Value &value) {
        if (std::holds_alternative<std::string>(value))
            return Type::Text;
        if (std::holds_alternative<bool>(value))
            return Type::Bool;
        const Node *node = host_model().find(path);
        const Parameter *one = node ? node->parameter(name) : nullptr;
        if (one && std::holds_alternative<std::int64_t>(one->value))
            return one->type;
        return std::get<std::int64_t>(value) < 0 ? Type::Int32 : Type::UInt64;
    }

    static void add(notification &news, const std::string &name, Type type, const Value &value) {
        auto one = std::make_unique<notification_parameter>();
        one->name = name;
        to_variant(type, value, &one->value);
        news.parameters.push_back(std::move(one));
    }

    /* --------------------------------------------------------------------------------------- deliveries */

    void deliver(Delivery delivery) {
        deliveries_.push_back(std::move(delivery));
        host_loop().post([this] {
            if (deliveries_.empty()) /* dropped by a detach */
                return;
            Delivery next = std::move(deliveries_.front());
            deliveries_.pop_front();
            hand_over(std::move(next));
        });
    }

    /* The request stays in memory until its handler has returned, also when the handler destroys it. */
    static void hand_over(Delivery delivery) {
        request &target = *delivery.target;
        if (target.destroyed)
            return;
        if (!delivery.item) {
            if (target.on_done)
                target.on_done(&target, rig_getSysbus(), rig_getSysbus(), target.data);
            return;
        }
        const Stopwatch stopwatch;
        auto &items = target.answer.items;
        if (target.wants_watch())
            items.clear(); /* a watch would gather items for ever */
        if (!items.empty())
            items.back()->next = delivery.item.get();
        items.push_back(std::move(delivery.item));
        if (target.on_item)
            target.on_item(&target, items.back().get(), rig_getSysbus(), rig_getSysbus(), target.data);
    }

    Model *model_ = nullptr;
    Model::WatchId watch_ = 0;
    std::map<request *, RequestRef> open_; /* every request that the plug-in holds */
    std::vector<RequestRef> watches_;      /* of these, in the order in which they were answered first */
    std::deque<Operation> pending_;
    std::deque<Delivery> deliveries_;
};

Bus bus;

request *create(request::Kind kind, std::string path, std::optional<std::string> key = std::nullopt) {
    if (path.empty())
        return nullptr;
    auto fresh = std::make_unique<request>();
    fresh->kind = kind;
    fresh->path = std::move(path);
    fresh->key = std::move(key);
    return bus.adopt(std::move(fresh));
}

std::string format_path(const char *format, va_list arguments) {
    return format ? format_text(format, arguments).substr(0, max_path) : std::string();
}

} // namespace

namespace keel {
void bus_carry_out_pending() {
    bus.carry_out_pending();
}
std::uint64_t plugin_handler_ns() {
    return handler_ns;
}
} // namespace keel

extern "C" {

/* -------------------------------------------------------------------------------------------------- requests */

request_t *request_create_getObject(const char *path, int32_t depth, uint32_t attributes) {
    request *fresh = create(request::Kind::Get, path ? path : "");
    if (fresh) {
        fresh->depth = depth;
        fresh->attributes = attributes;
    }
    return fresh;
}

request_t *request_create_addInstance(const char *parent, uint32_t, const char *key, uint32_t) {
    return create(request::Kind::Add, parent ? parent : "", key ? std::optional<std::string>(key) : std::nullopt);
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
    bus.destroy(request);
}

bool hull_waitSendRequest(hull_t *, sysbus_t *, request_t *request) {
    return bus.send(request);
}

bool hull_sendRequest(hull_t *, sysbus_t *, request_t *request) {
    return bus.send(request);
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
    trace(Level::Warning, "bus", "%s: error %u: %s: %s", reply->path.c_str(), error, info ? info : "",
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

/* -------------------------------------------------------------------------------------------- Keel's helpers */

request_t *keel_request_create_setObject(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    request *fresh = create(request::Kind::Set, format_path(format, arguments));
    va_end(arguments);
    return fresh;
}

request_t *keel_request_create_getObject(const char *format, uint32_t attributes, ...) {
    va_list arguments;
    va_start(arguments, attributes);
    request *fresh = create(request::Kind::Get, format_path(format, arguments));
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
    return create(request::Kind::Add, path.substr(0, dot), key.empty() ? std::nullopt : std::optional(key));
}

request_t *keel_request_create_deleteInstance(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    request *fresh = create(request::Kind::Delete, format_path(format, arguments));
    va_end(arguments);
    return fresh;
}

bool keel_request_push(const char *owner, sysbus_t *, request_t *request, const char *descriptionFormat, ...) {
    if (!request)
        return false;
    va_list arguments;
    va_start(arguments, descriptionFormat);
    bus.push(request, owner ? owner : "", format_text(descriptionFormat, arguments));
    va_end(arguments);
    return true;
}

bool keel_request_invoke(const char *owner, sysbus_t *, request_t *request, const char *descriptionFormat, ...) {
    if (!request)
        return false;
    va_list arguments;
    va_start(arguments, descriptionFormat);
    const std::string description = format_text(descriptionFormat, arguments);
    va_end(arguments);
    return bus.invoke(request, owner ? owner : "", description);
}

/* The order of what is pushed is kept: what others pushed before goes with it. */
void keel_request_flush(const char *) {
    bus.carry_out_pending();
}
}

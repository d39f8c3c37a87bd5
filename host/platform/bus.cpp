#include "host/platform/bus.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "host/base/trace.h"
#include "host/platform/plugin.h"

namespace keel {

Bus bus;

namespace {

enum { error_no_object = 1, error_refused = 2 };

void report_refusal(const std::string &owner, const std::string &description, const reply_item &item) {
    trace(Level::Warning, "bus", "%s: %s refused: %s: %s", owner.c_str(), description.c_str(), item.info.c_str(),
          item.description.c_str());
}

std::unique_ptr<reply_item> object_item(const request &target) {
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
std::unique_ptr<reply_item> perform(const request &target) {
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

} // namespace

/* Adds the time of its life to what the handlers took; an inner one's is part of the outer one's. */
class Bus::Stopwatch {
public:
    explicit Stopwatch(Bus &of) : of_(of) { ++of_.handler_depth_; }
    Stopwatch(const Stopwatch &) = delete;
    Stopwatch &operator=(const Stopwatch &) = delete;
    ~Stopwatch() {
        const auto time = std::chrono::steady_clock::now() - start_;
        if (--of_.handler_depth_ == 0)
            of_.handler_ns_ += static_cast<std::uint64_t>(std::chrono::nanoseconds(time).count());
    }

private:
    Bus &of_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

void Bus::prepare() {
    if (model_ == &host_model())
        return;
    model_ = &host_model();
    host_on_detach("requests", [this] {
        const std::size_t left = open_.size();
        for (const auto &[raw, target] : open_) {
            target->destroyed = true;
            close_watch(*target);
        }
        model_ = nullptr;
        open_.clear();
        pending_.clear();
        deliveries_.clear();
        return left;
    });
}

request *Bus::create(request::Kind kind, std::string path, std::optional<std::string> key) {
    if (path.empty())
        return nullptr;
    prepare();
    const auto fresh = std::make_shared<request>();
    fresh->kind = kind;
    fresh->path = std::move(path);
    fresh->key = std::move(key);
    fresh->answer.path = fresh->path;
    open_[fresh.get()] = fresh;
    return fresh.get();
}

Bus::RequestRef Bus::find(request *raw) const {
    const auto found = open_.find(raw);
    return found == open_.end() ? nullptr : found->second;
}

void Bus::destroy(request *raw) {
    const RequestRef target = find(raw);
    if (!target)
        return;
    target->destroyed = true;
    close_watch(*target);
    open_.erase(raw);
}

/* ------------------------------------------------------------------------------------------------- operations */

bool Bus::send(request *raw) {
    const RequestRef target = find(raw);
    if (!target || (target->sent && target->kind != request::Kind::Get))
        return false;
    target->sent = true;
    enqueue({target, "", "", false});
    return true;
}

void Bus::push(request *raw, std::string owner, std::string description) {
    const RequestRef target = find(raw);
    if (!target)
        return;
    open_.erase(raw);
    target->sent = true;
    enqueue({target, std::move(owner), std::move(description), true});
}

bool Bus::invoke(request *raw, const std::string &owner, const std::string &description) {
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

void Bus::carry_out_pending() {
    while (!pending_.empty()) {
        const Operation operation = std::move(pending_.front());
        pending_.pop_front();
        carry_out(operation);
    }
}

void Bus::enqueue(Operation operation) {
    pending_.push_back(std::move(operation));
    if (pending_.size() == 1)
        host_loop().post([this] { carry_out_pending(); });
}

void Bus::carry_out(const Operation &operation) {
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
    if (target.wants_watch())
        open_watch(operation.target);
    else
        deliver({operation.target, nullptr});
}

/* ---------------------------------------------------------------------------------------------------- watches */

void Bus::open_watch(const RequestRef &target) {
    target->since = model_->latest_event();
    if (target->watch)
        return;
    target->watch = model_->watch(target->path,
                                  [this, weak = std::weak_ptr(target)](const Event &event) {
                                      if (const RequestRef open = weak.lock())
                                          on_event(open, event);
                                  },
                                  {target->names(), true});
}

void Bus::close_watch(request &target) {
    if (target.watch)
        model_->unwatch(std::exchange(target.watch, 0));
}

namespace {

/* Whether the watched object is the instance at that path or lies in it. Comparing the texts is not enough: there
 * may be an instance "eth1" beside an instance "eth1.20". */
bool appears_with(const request &target, const std::string &path) {
    if (target.path != path && !target.path.starts_with(path + "."))
        return false;
    for (const Node *node = host_model().find(target.path); node; node = node->parent)
        if (node->instance && node->path() == path)
            return true;
    return false;
}

/* How many names the event's path has more than the watched one; -1 when it is not below it. */
int level_below(const request &target, const Event &event, const std::string &path) {
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

bool named(const request &target, const std::string &name) {
    return target.parameters.empty() || std::any_of(target.parameters.begin(), target.parameters.end(),
                                                    [&](const auto &one) { return one->name == name; });
}

std::unique_ptr<reply_item> news_item(std::uint32_t type, const std::string &path) {
    auto item = std::make_unique<reply_item>();
    item->type = reply_type_notification;
    item->news = std::make_unique<notification>();
    item->news->type = type;
    item->news->path = path;
    return item;
}

/* The parameter's type as long as the object has such a parameter, else one that holds the value. */
Type type_of(const std::string &path, const std::string &name, const Value &value) {
    if (std::holds_alternative<std::string>(value))
        return Type::Text;
    if (std::holds_alternative<bool>(value))
        return Type::Bool;
    const Node *node = host_model().find(path);
    const Parameter *one = node ? node->parameter(name) : nullptr;
    if (one && std::holds_alternative<std::int64_t>(one->value))
        return one->type();
    return std::get<std::int64_t>(value) < 0 ? Type::Int32 : Type::UInt64;
}

void add(notification &news, const std::string &name, Type type, const Value &value) {
    auto one = std::make_unique<notification_parameter>();
    one->name = name;
    to_variant(type, value, &one->value);
    news.parameters.push_back(std::move(one));
}

} // namespace

void Bus::on_event(const RequestRef &target, const Event &event) {
    if (event.number <= target->since)
        return;
    const std::string path = event.path();
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

void Bus::tell_object(const RequestRef &target, const Event &event, int level) {
    if (level != 0 || event.kind != Event::Kind::Changed)
        return;
    if (std::none_of(event.values.begin(), event.values.end(),
                     [&](const auto &changed) { return named(*target, changed.first); }))
        return;
    auto item = object_item(*target);
    if (item->type == reply_type_object)
        deliver({target, std::move(item)});
}

void Bus::tell_news(const RequestRef &target, const Event &event, const std::string &path) {
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

/* ------------------------------------------------------------------------------------------------- deliveries */

/* One at a time, each once the host has done what followed from the one before: what a device waits for goes out before
 * the commands of the next device are run. */
void Bus::deliver(Delivery delivery) {
    deliveries_.push_back(std::move(delivery));
    host_loop().post_last([this] {
        if (deliveries_.empty()) /* dropped by a detach */
            return;
        Delivery next = std::move(deliveries_.front());
        deliveries_.pop_front();
        hand_over(std::move(next));
    });
}

/* The request stays in memory until its handler has returned, also when the handler destroys it. */
void Bus::hand_over(Delivery delivery) {
    request &target = *delivery.target;
    if (target.destroyed)
        return;
    if (!delivery.item) {
        if (target.on_done)
            target.on_done(&target, rig_getSysbus(), rig_getSysbus(), target.data);
        return;
    }
    const Stopwatch stopwatch(*this);
    auto &items = target.answer.items;
    if (target.wants_watch())
        items.clear(); /* a watch would gather items for ever */
    if (!items.empty())
        items.back()->next = delivery.item.get();
    items.push_back(std::move(delivery.item));
    if (target.on_item)
        target.on_item(&target, items.back().get(), rig_getSysbus(), rig_getSysbus(), target.data);
}

void bus_carry_out_pending() {
    bus.carry_out_pending();
}

std::uint64_t plugin_handler_ns() {
    return bus.handler_ns();
}

} // namespace keel

#include "host/model/model.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <utility>

namespace keel {

namespace {

void write(Parameter &parameter, const Value &value) {
    parameter.value = value;
    parameter.present = true;
}

/* The first value that an object of that shape does not take; nothing when it takes all. */
template <typename PathOf> Outcome misfit(const Shape &shape, const Values &values, const PathOf &path_of) {
    for (const auto &[name, value] : values) {
        const ParameterShape *parameter = shape.parameter(name);
        if (!parameter)
            return Refusal{path_of(), "no parameter \"" + name + "\""};
        const std::string reason = misfit(parameter->type, value);
        if (!reason.empty())
            return Refusal{path_of(), "\"" + name + "\" " + reason};
    }
    return std::nullopt;
}

} // namespace

Model::Model(Loop &loop) : loop_(loop), root_(std::make_unique<Node>()), alive_(std::make_shared<bool>(true)) {
    static const Shape nothing;
    grow(*root_, nothing, generation_);
}

Model::~Model() {
    *alive_ = false;
}

void Model::load_file(const std::string &file) {
    std::ifstream stream(file);
    if (!stream)
        throw ModelError(file + ": cannot be read");
    std::ostringstream text;
    text << stream.rdbuf();
    load_text(text.str(), file);
}

void Model::load_text(std::string_view json, const std::string &file) {
    load_shape(*read_shapes(json, file, shapes_));
}

void Model::load_shape(const Shape &root) {
    root_ = std::make_unique<Node>();
    grow(*root_, root, ++generation_);
}

const Node *Model::find(std::string_view path) const {
    return descend(root_.get(), path);
}

std::optional<Value> Model::get(std::string_view path, std::string_view parameter) const {
    const Node *node = find(path);
    const Parameter *found = node ? node->parameter(parameter) : nullptr;
    return found && found->present ? std::optional<Value>(found->value) : std::nullopt;
}

std::string Model::text(std::string_view path, std::string_view parameter, std::string_view fallback) const {
    const auto value = get(path, parameter);
    return value && std::holds_alternative<std::string>(*value) ? std::get<std::string>(*value) : std::string(fallback);
}

bool Model::boolean(std::string_view path, std::string_view parameter, bool fallback) const {
    const auto value = get(path, parameter);
    return value && std::holds_alternative<bool>(*value) ? std::get<bool>(*value) : fallback;
}

std::int64_t Model::integer(std::string_view path, std::string_view parameter, std::int64_t fallback) const {
    const auto value = get(path, parameter);
    return value && std::holds_alternative<std::int64_t>(*value) ? std::get<std::int64_t>(*value) : fallback;
}

std::vector<std::string> Model::instances(std::string_view path) const {
    std::vector<std::string> names;
    const Node *node = find(path);
    if (node && node->multi)
        for (const auto &child : node->children)
            names.push_back(child.name);
    return names;
}

std::vector<ParameterShape> Model::instance_parameters(std::string_view path) const {
    const Node *node = find(path);
    return node && node->multi ? node->shape->instance->parameters : std::vector<ParameterShape>();
}

Outcome Model::set(std::string_view path, const Values &values) {
    Node *node = descend(root_.get(), path);
    if (!node)
        return Refusal{std::string(path), "no such object"};
    if (Outcome refusal = misfit(*node->shape, values, [&] { return node->path(); }))
        return refusal;
    Event event{Event::Kind::Changed, {}, {}, {}};
    for (const auto &[name, value] : values) {
        Parameter &parameter = *node->parameter(name);
        if (parameter.present && parameter.value == value)
            continue;
        event.before[name] = parameter.value;
        event.values[name] = value;
        write(parameter, value);
    }
    if (!event.values.empty()) {
        event.steps = node->steps();
        written(*node);
        event.persistent = node->persistent;
        tell(std::move(event));
    }
    return std::nullopt;
}

Outcome Model::add(std::string_view parent, const std::optional<std::string> &key, const Values &values,
                   std::string *name) {
    Node *multi = descend(root_.get(), parent);
    if (!multi)
        return Refusal{std::string(parent), "no such object"};
    if (!multi->multi)
        return Refusal{std::string(parent), "has no instances"};
    if (key && !valid_key(*key))
        return Refusal{std::string(parent), "bad instance name \"" + *key + "\""};
    const std::string chosen = key ? *key : multi->children.free_number();
    const auto path = [&] { return join_path(multi->path(), chosen); };
    if (multi->child(chosen))
        return Refusal{path(), "exists already"};
    if (Outcome refusal = misfit(*multi->shape->instance, values, path))
        return refusal;
    Node &node = grow_instance(*multi, chosen, generation_ + 1);
    for (const auto &[parameter_name, value] : values)
        write(*node.parameter(parameter_name), value);
    written(node);
    tell({Event::Kind::Added, node.steps(), node.values(), {}, 0, 0, node.persistent});
    if (name)
        *name = chosen;
    return std::nullopt;
}

Outcome Model::remove(std::string_view path) {
    const Node *node = descend(root_.get(), path);
    if (!node)
        return Refusal{std::string(path), "no such object"};
    if (!node->instance)
        return Refusal{std::string(path), "only instances can be deleted"};
    std::vector<Event> events;
    const std::function<void(const Node &)> note = [&](const Node &gone) {
        for (const Node &child : gone.children)
            note(child);
        if (gone.instance)
            events.push_back({Event::Kind::Deleted, gone.steps(), gone.values(), {}, 0, 0, gone.persistent});
    };
    note(*node);
    Node &parent = *node->parent;
    parent.children.remove(*node);
    written(parent);
    for (Event &event : events)
        tell(std::move(event));
    return std::nullopt;
}

void Model::notify(std::string_view path, std::uint32_t type, Values values) {
    const Node *node = find(path);
    if (node)
        tell({Event::Kind::Custom, node->steps(), std::move(values), {}, type, 0});
}

Model::WatchId Model::watch(std::string_view path, Watcher watcher, Concern concern) {
    return watches_.add(path, std::move(watcher), std::move(concern));
}

void Model::unwatch(WatchId id) {
    watches_.remove(id);
}

void Model::observe(const void *key, Observer observer) {
    if (observer)
        observers_[key] = std::move(observer);
    else
        observers_.erase(key);
}

/* All objects above have changed with it. */
void Model::written(Node &node) {
    follow_persistence(node);
    ++generation_;
    for (Node *at = &node; at; at = at->parent)
        at->generation = generation_;
}

void Model::tell(Event event) {
    event.number = ++last_event_;
    for (const auto &[key, observer] : observers_)
        observer(event);
    events_.push_back(std::move(event));
    if (dispatch_posted_)
        return;
    dispatch_posted_ = true;
    loop_.post([this, alive = alive_] {
        if (*alive)
            dispatch_now();
    });
}

/* Tells what has happened up to now; what the watchers write is told on the next turn. */
void Model::dispatch_now() {
    dispatch_posted_ = false;
    std::deque<Event> events;
    events.swap(events_);
    for (const Event &event : events)
        watches_.tell(event);
}

} // namespace keel

#include "host/model/model.h"

#include <algorithm>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "host/base/trace.h"

namespace keel {

using Json = nlohmann::ordered_json;

struct Shape {
    struct Initial {
        std::string name;
        Values values;
        std::map<std::string, std::vector<Initial>> below; /* child object -> its instances */
    };

    std::vector<Parameter> parameters;
    std::vector<std::pair<std::string, const Shape *>> objects;
    const Shape *instance = nullptr; /* set: a multi-instance object */
    std::vector<Initial> instances;  /* those it starts with */
    bool persistent = false;
};

namespace {

constexpr std::size_t max_key = 64;
constexpr int max_depth = 64; /* of a model file: far more than any tree has, far less than the stack holds */

struct Bounds {
    std::int64_t low;
    std::int64_t high;
};

Bounds bounds_of(Type type) {
    switch (type) {
    case Type::Int32:
        return {std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()};
    case Type::UInt8:
        return {0, std::numeric_limits<std::uint8_t>::max()};
    case Type::UInt16:
        return {0, std::numeric_limits<std::uint16_t>::max()};
    case Type::UInt32:
        return {0, std::numeric_limits<std::uint32_t>::max()};
    default:
        return {0, std::numeric_limits<std::int64_t>::max()};
    }
}

/* Why a value does not fit a type; empty when it does. */
std::string misfit(Type type, const Value &value) {
    if (type == Type::Text)
        return std::holds_alternative<std::string>(value) ? "" : "wants a text";
    if (type == Type::Bool)
        return std::holds_alternative<bool>(value) ? "" : "wants true or false";
    const auto *number = std::get_if<std::int64_t>(&value);
    if (!number)
        return "wants a number";
    const Bounds bounds = bounds_of(type);
    if (*number < bounds.low || *number > bounds.high)
        return "is out of range for " + std::string(type_name(type));
    return "";
}

Value empty_value(Type type) {
    if (type == Type::Text)
        return std::string();
    return type == Type::Bool ? Value(false) : Value(std::int64_t{0});
}

void write(Parameter &parameter, const Value &value) {
    parameter.value = value;
    parameter.present = true;
}

bool valid_key(std::string_view key) {
    return !key.empty() && key.size() <= max_key && key.front() != '.' && key.back() != '.' &&
           std::all_of(key.begin(), key.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

std::string join(const std::string &path, std::string_view name) {
    return path.empty() ? std::string(name) : path + "." + std::string(name);
}

Parameter *parameter_of(Node &node, std::string_view name) {
    const auto found = std::find_if(node.parameters.begin(), node.parameters.end(),
                                    [&](const Parameter &p) { return p.name == name; });
    return found == node.parameters.end() ? nullptr : &*found;
}

Values values_of(const Node &node) {
    Values values;
    for (const Parameter &parameter : node.parameters)
        if (parameter.present)
            values[parameter.name] = parameter.value;
    return values;
}

std::vector<std::string> steps_of(const Node &node) {
    std::vector<std::string> steps;
    for (const Node *at = &node; at->parent; at = at->parent)
        steps.insert(steps.begin(), at->name);
    return steps;
}

/* The descendant at a relative path, or null. Instance names may hold dots: the longest that exists wins. */
Node *descend(Node *from, std::string_view path) {
    while (from && !path.empty()) {
        Node *best = nullptr;
        for (const auto &child : from->children) {
            const std::string &name = child->name;
            if (path.starts_with(name) && (path.size() == name.size() || path[name.size()] == '.') &&
                (!best || name.size() > best->name.size()))
                best = child.get();
        }
        if (!best)
            return nullptr;
        path.remove_prefix(std::min(path.size(), best->name.size() + 1));
        from = best;
    }
    return from;
}

/* Whether an event belongs to who watches that path. Compared name by name: "eth1.20" is not below "eth1". */
bool at_or_below(const Event &event, std::string_view path) {
    for (const std::string &step : event.steps) {
        if (path.empty())
            return true;
        if (!path.starts_with(step))
            return false;
        path.remove_prefix(step.size());
        if (!path.empty() && path.front() != '.')
            return false;
        path.remove_prefix(std::min<std::size_t>(path.size(), 1));
    }
    return path.empty();
}

/* The JSON of a model file. A member that is there twice would silently win over the first one. */
Json parse_json(std::string_view text, const std::string &file) {
    struct Level {
        std::set<std::string> members;
        std::string member;
    };
    std::vector<Level> levels;
    const auto check = [&](int depth, Json::parse_event_t event, const Json &parsed) {
        if (depth > max_depth)
            throw ModelError(file + ": (root): nested too deep");
        if (event == Json::parse_event_t::object_start)
            levels.emplace_back();
        else if (event == Json::parse_event_t::object_end)
            levels.pop_back();
        else if (event == Json::parse_event_t::key) {
            const auto name = parsed.get<std::string>();
            if (!levels.back().members.insert(name).second) {
                std::string path;
                for (const Level &level : levels)
                    if (&level != &levels.back())
                        path = join(path, level.member);
                throw ModelError(file + ": " + (path.empty() ? "(root)" : path) + ": duplicate member \"" + name +
                                 "\"");
            }
            levels.back().member = name;
        }
        return true;
    };
    try {
        return Json::parse(text, check);
    } catch (const Json::exception &error) {
        throw ModelError(file + ": (root): no JSON: " + error.what());
    }
}

/* Reads the shapes from the file; every complaint names the place. */
class ShapeReader {
public:
    ShapeReader(std::string file, std::vector<std::unique_ptr<Shape>> &shapes)
        : file_(std::move(file)), shapes_(shapes) {}

    const Shape *read(const Json &json, const std::string &path) {
        expect(json.is_object(), path, "must be a JSON object");
        shapes_.push_back(std::make_unique<Shape>());
        Shape &shape = *shapes_.back();
        for (const auto &[member, value] : json.items()) {
            if (member == "parameters")
                read_parameters(shape, value, path);
            else if (member == "objects")
                read_objects(shape, value, path);
            else if (member == "instance")
                shape.instance = read(value, join(path, "{i}"));
            else if (member == "persistent") {
                expect(value.is_boolean(), path, "\"persistent\" must be true or false");
                shape.persistent = value.get<bool>();
            } else
                expect(member == "instances", path, "unknown member \"" + member + "\"");
        }
        if (json.contains("instances")) {
            expect(shape.instance, path, "\"instances\" without \"instance\"");
            shape.instances = read_instances(*shape.instance, json["instances"], path);
        }
        expect(!shape.instance || (shape.objects.empty() && shape.parameters.empty()), path,
               "a multi-instance object has no parameters or objects of its own");
        return &shape;
    }

private:
    void expect(bool holds, const std::string &path, const std::string &reason) const {
        if (!holds)
            throw ModelError(file_ + ": " + (path.empty() ? "(root)" : path) + ": " + reason);
    }

    void expect_name(const std::string &name, const std::string &path) const {
        expect(valid_key(name) && name.find('.') == std::string::npos, path, "bad name \"" + name + "\"");
    }

    void read_parameters(Shape &shape, const Json &json, const std::string &path) {
        static const std::map<std::string, Type> types = {
            {"text", Type::Text},     {"bool", Type::Bool},     {"int32", Type::Int32},  {"uint8", Type::UInt8},
            {"uint16", Type::UInt16}, {"uint32", Type::UInt32}, {"uint64", Type::UInt64}};
        expect(json.is_object(), path, "\"parameters\" must be a JSON object");
        for (const auto &[name, definition] : json.items()) {
            const std::string at = join(path, name);
            expect_name(name, path);
            expect(definition.is_array() && definition.size() == 2 && definition[0].is_string(), at,
                   "must be [type, default]");
            const auto type = types.find(definition[0].get<std::string>());
            expect(type != types.end(), at, "unknown type \"" + definition[0].get<std::string>() + "\"");
            if (definition[1].is_null())
                shape.parameters.push_back({name, type->second, empty_value(type->second), false});
            else
                shape.parameters.push_back({name, type->second, read_value(type->second, definition[1], at), true});
        }
    }

    Value read_value(Type type, const Json &json, const std::string &path) const {
        Value value;
        if (json.is_string())
            value = json.get<std::string>();
        else if (json.is_boolean())
            value = json.get<bool>();
        else {
            expect(json.is_number_integer(), path, "must be a text, true, false or a whole number");
            expect(!json.is_number_unsigned() ||
                       json.get<std::uint64_t>() <= std::uint64_t{std::numeric_limits<std::int64_t>::max()},
                   path, "is out of range for " + std::string(type_name(type)));
            value = json.get<std::int64_t>();
        }
        const std::string reason = misfit(type, value);
        expect(reason.empty(), path, reason);
        return value;
    }

    void read_objects(Shape &shape, const Json &json, const std::string &path) {
        expect(json.is_object(), path, "\"objects\" must be a JSON object");
        for (const auto &[name, object] : json.items()) {
            expect_name(name, path);
            const Shape *child = read(object, join(path, name));
            shape.objects.emplace_back(name, child);
        }
    }

    std::vector<Shape::Initial> read_instances(const Shape &shape, const Json &json, const std::string &path) {
        std::vector<Shape::Initial> all;
        expect(json.is_object(), path, "\"instances\" must be a JSON object");
        for (const auto &[name, content] : json.items()) {
            const std::string at = join(path, name);
            expect(valid_key(name), path, "bad instance name \"" + name + "\"");
            expect(content.is_object(), at, "must be a JSON object");
            Shape::Initial one;
            one.name = name;
            for (const auto &[member, value] : content.items()) {
                expect(member == "values" || member == "instances", at, "unknown member \"" + member + "\"");
                expect(value.is_object(), at, "\"" + member + "\" must be a JSON object");
            }
            if (content.contains("values"))
                read_initial_values(shape, content["values"], at, one.values);
            if (content.contains("instances"))
                for (const auto &[object, nested] : content["instances"].items()) {
                    const auto child = std::find_if(shape.objects.begin(), shape.objects.end(),
                                                    [wanted = object](const auto &o) { return o.first == wanted; });
                    expect(child != shape.objects.end() && child->second->instance, at,
                           "no multi-instance object \"" + object + "\"");
                    one.below[object] = read_instances(*child->second->instance, nested, join(at, object));
                }
            all.push_back(std::move(one));
        }
        return all;
    }

    void read_initial_values(const Shape &shape, const Json &json, const std::string &path, Values &values) {
        for (const auto &[name, value] : json.items()) {
            const auto parameter = std::find_if(shape.parameters.begin(), shape.parameters.end(),
                                                [wanted = name](const Parameter &p) { return p.name == wanted; });
            expect(parameter != shape.parameters.end(), path, "no parameter \"" + name + "\"");
            values[name] = read_value(parameter->type, value, join(path, name));
        }
    }

    std::string file_;
    std::vector<std::unique_ptr<Shape>> &shapes_;
};

void place_initial(Node &multi, const Shape::Initial &initial);

/* A node as its shape says, with the objects and instances that stand below it from the start. */
std::unique_ptr<Node> grow(const Shape &shape, std::string name, Node *parent) {
    auto node = std::make_unique<Node>();
    node->name = std::move(name);
    node->parent = parent;
    node->shape = &shape;
    node->multi = shape.instance != nullptr;
    node->instance = parent && parent->multi;
    node->persistent = shape.persistent || (parent && parent->persistent);
    node->parameters = shape.parameters;
    for (const auto &[child_name, child_shape] : shape.objects)
        node->children.push_back(grow(*child_shape, child_name, node.get()));
    for (const Shape::Initial &initial : shape.instances)
        place_initial(*node, initial);
    return node;
}

void place_initial(Node &multi, const Shape::Initial &initial) {
    Node *node = descend(&multi, initial.name);
    if (!node || node->parent != &multi) {
        multi.children.push_back(grow(*multi.shape->instance, initial.name, &multi));
        node = multi.children.back().get();
    }
    for (const auto &[name, value] : initial.values)
        write(*parameter_of(*node, name), value);
    for (const auto &[object, instances] : initial.below)
        for (const Shape::Initial &below : instances)
            place_initial(*descend(node, object), below);
}

} // namespace

/* ---------------------------------------------------------------------------------------------------- values */

std::string to_text(const Value &value) {
    if (const auto *text = std::get_if<std::string>(&value))
        return *text;
    if (const auto *boolean = std::get_if<bool>(&value))
        return *boolean ? "true" : "false";
    return std::to_string(std::get<std::int64_t>(value));
}

std::optional<Value> parse_value(Type type, std::string_view text) {
    if (type == Type::Text)
        return Value(std::string(text));
    if (type == Type::Bool) {
        if (text == "true" || text == "1")
            return Value(true);
        if (text == "false" || text == "0")
            return Value(false);
        return std::nullopt;
    }
    const std::string number(text);
    char *end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(number.c_str(), &end, 10);
    if (number.empty() || *end != '\0' || errno != 0 || std::isspace(static_cast<unsigned char>(number[0])))
        return std::nullopt;
    const Value value(static_cast<std::int64_t>(parsed));
    return misfit(type, value).empty() ? std::optional<Value>(value) : std::nullopt;
}

const char *type_name(Type type) {
    switch (type) {
    case Type::Text:
        return "text";
    case Type::Bool:
        return "bool";
    case Type::Int32:
        return "int32";
    case Type::UInt8:
        return "uint8";
    case Type::UInt16:
        return "uint16";
    case Type::UInt32:
        return "uint32";
    case Type::UInt64:
        return "uint64";
    }
    return "";
}

/* ----------------------------------------------------------------------------------------------------- nodes */

const Parameter *Node::parameter(std::string_view parameter_name) const {
    return parameter_of(const_cast<Node &>(*this), parameter_name);
}

const Node *Node::child(std::string_view child_name) const {
    for (const auto &node : children)
        if (node->name == child_name)
            return node.get();
    return nullptr;
}

std::string Node::path() const {
    std::size_t length = 0;
    for (const Node *at = this; at->parent; at = at->parent)
        length += at->name.size() + 1;
    if (length == 0)
        return "";
    std::string text(length - 1, '.'); /* filled from the end */
    for (const Node *at = this; at->parent; at = at->parent) {
        length -= at->name.size() + 1;
        text.replace(length, at->name.size(), at->name);
    }
    return text;
}

std::string Event::path() const {
    std::string text;
    for (const std::string &step : steps)
        text = join(text, step);
    return text;
}

/* ----------------------------------------------------------------------------------------------------- model */

Model::Model(Loop &loop) : loop_(loop), root_(std::make_unique<Node>()), alive_(std::make_shared<bool>(true)) {}

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
    const Shape *shape = ShapeReader(file, shapes_).read(parse_json(json, file), "");
    root_ = grow(*shape, "", nullptr);
    ++generation_;
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
            names.push_back(child->name);
    return names;
}

std::vector<Parameter> Model::instance_parameters(std::string_view path) const {
    const Node *node = find(path);
    return node && node->multi ? node->shape->instance->parameters : std::vector<Parameter>();
}

Outcome Model::set(std::string_view path, const Values &values) {
    Node *node = descend(root_.get(), path);
    if (!node)
        return Refusal{std::string(path), "no such object"};
    for (const auto &[name, value] : values) {
        const Parameter *parameter = node->parameter(name);
        if (!parameter)
            return Refusal{node->path(), "no parameter \"" + name + "\""};
        const std::string reason = misfit(parameter->type, value);
        if (!reason.empty())
            return Refusal{node->path(), "\"" + name + "\" " + reason};
    }
    Event event{Event::Kind::Changed, {}, {}, {}, 0, 0};
    for (const auto &[name, value] : values) {
        Parameter &parameter = *parameter_of(*node, name);
        if (parameter.present && parameter.value == value)
            continue;
        event.before[name] = parameter.value;
        event.values[name] = value;
        write(parameter, value);
    }
    if (!event.values.empty()) {
        event.steps = steps_of(*node);
        ++generation_;
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
    if (key && multi->child(*key))
        return Refusal{join(multi->path(), *key), "exists already"};
    std::string chosen;
    if (key)
        chosen = *key;
    else
        for (unsigned number = 1; chosen.empty() || multi->child(chosen); ++number)
            chosen = std::to_string(number);

    auto node = grow(*multi->shape->instance, chosen, multi);
    for (const auto &[parameter_name, value] : values) {
        Parameter *parameter = parameter_of(*node, parameter_name);
        if (!parameter)
            return Refusal{node->path(), "no parameter \"" + parameter_name + "\""};
        const std::string reason = misfit(parameter->type, value);
        if (!reason.empty())
            return Refusal{node->path(), "\"" + parameter_name + "\" " + reason};
        write(*parameter, value);
    }
    tell({Event::Kind::Added, steps_of(*node), values_of(*node), {}, 0, 0});
    multi->children.push_back(std::move(node));
    ++generation_;
    if (name)
        *name = chosen;
    return std::nullopt;
}

Outcome Model::remove(std::string_view path) {
    Node *node = descend(root_.get(), path);
    if (!node)
        return Refusal{std::string(path), "no such object"};
    if (!node->instance)
        return Refusal{std::string(path), "only instances can be deleted"};
    const std::function<void(const Node &)> tell_of = [&](const Node &gone) {
        for (const auto &child : gone.children)
            tell_of(*child);
        if (gone.instance)
            tell({Event::Kind::Deleted, steps_of(gone), values_of(gone), {}, 0, 0});
    };
    tell_of(*node);
    auto &siblings = node->parent->children;
    siblings.erase(std::find_if(siblings.begin(), siblings.end(), [&](const auto &n) { return n.get() == node; }));
    ++generation_;
    return std::nullopt;
}

void Model::notify(std::string_view path, std::uint32_t type, Values values) {
    const Node *node = find(path);
    if (node)
        tell({Event::Kind::Custom, steps_of(*node), std::move(values), {}, type, 0});
}

Model::WatchId Model::watch(std::string_view path, Watcher watcher) {
    watches_.push_back(std::make_shared<Watch>(Watch{++last_watch_, std::string(path), std::move(watcher)}));
    return last_watch_;
}

void Model::unwatch(WatchId id) {
    const auto found = std::find_if(watches_.begin(), watches_.end(), [&](const auto &w) { return w->id == id; });
    if (found == watches_.end())
        return;
    (*found)->watcher = nullptr;
    watches_.erase(found);
}

void Model::tell(Event event) {
    event.number = ++last_event_;
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
    for (const Event &event : events) {
        const auto watches = watches_;
        for (const auto &watch : watches) {
            if (!watch->watcher || !at_or_below(event, watch->path))
                continue;
            const Watcher watcher = watch->watcher; /* it may unwatch itself */
            watcher(event);
        }
    }
}

/* ----------------------------------------------------------------------------------------------------- words */

std::vector<std::string> split_words(std::string_view words) {
    constexpr std::string_view blanks = " \t\r\n\v\f";
    std::vector<std::string> all;
    while (true) {
        words.remove_prefix(std::min(words.size(), words.find_first_not_of(blanks)));
        if (words.empty())
            return all;
        all.emplace_back(words.substr(0, words.find_first_of(blanks)));
        words.remove_prefix(all.back().size());
    }
}

bool has_word(std::string_view words, std::string_view word) {
    const auto all = split_words(words);
    return std::find(all.begin(), all.end(), word) != all.end();
}

std::string with_word(std::string_view words, std::string_view word) {
    if (has_word(words, word))
        return std::string(words);
    return words.empty() ? std::string(word) : std::string(words) + " " + std::string(word);
}

std::string without_word(std::string_view words, std::string_view word) {
    std::string rest;
    for (const std::string &one : split_words(words))
        if (one != word)
            rest += (rest.empty() ? "" : " ") + one;
    return rest;
}

} // namespace keel

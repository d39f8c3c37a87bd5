#include "host/model/model_file.h"

#include <algorithm>
#include <limits>
#include <map>
#include <unordered_set>
#include <utility>

#include <nlohmann/json.hpp>

namespace keel {

using Json = nlohmann::ordered_json;

namespace {

constexpr std::size_t max_depth = 64; /* of a model file: far more than any tree has, far less than the stack holds */

/* Builds the JSON of a model file in a time that grows with its length alone: the library's own ordered object walks
 * all members for each new one. A member that is there twice is refused; it would silently win over the first one. */
class JsonBuilder : public nlohmann::json_sax<Json> {
public:
    JsonBuilder(std::string file, Json &root) : file_(std::move(file)), root_(root) {}

    bool null() override { return add(nullptr); }
    bool boolean(bool value) override { return add(value); }
    bool number_integer(number_integer_t value) override { return add(value); }
    bool number_unsigned(number_unsigned_t value) override { return add(value); }
    bool number_float(number_float_t value, const string_t &) override { return add(value); }
    bool string(string_t &value) override { return add(std::move(value)); }
    bool binary(binary_t &) override { return false; }
    bool start_object(std::size_t) override { return open(Json::object()); }
    bool start_array(std::size_t) override { return open(Json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t &name) override {
        Level &level = levels_.back();
        if (!level.members.insert(name).second) {
            std::string path;
            for (const Level &outer : levels_)
                if (&outer != &level && outer.json->is_object())
                    path = join_path(path, outer.member);
            throw ModelError(file_ + ": " + (path.empty() ? "(root)" : path) + ": duplicate member \"" + name + "\"");
        }
        level.member = std::move(name);
        return true;
    }

    bool parse_error(std::size_t, const std::string &, const nlohmann::detail::exception &error) override {
        throw ModelError(file_ + ": (root): no JSON: " + error.what());
    }

private:
    struct Level {
        Json *json;
        std::unordered_set<std::string> members;
        std::string member;
    };

    Json *place(Json value) {
        if (levels_.empty()) {
            root_ = std::move(value);
            return &root_;
        }
        Json &outer = *levels_.back().json;
        if (outer.is_array()) {
            outer.push_back(std::move(value));
            return &outer.back();
        }
        auto &members = outer.get_ref<Json::object_t &>();
        members.push_back({levels_.back().member, std::move(value)});
        return &members.back().second;
    }

    bool add(Json value) {
        place(std::move(value));
        return true;
    }

    bool open(Json value) {
        if (levels_.size() == max_depth)
            throw ModelError(file_ + ": (root): nested too deep");
        Json *placed = place(std::move(value));
        levels_.push_back({placed, {}, {}});
        return true;
    }

    bool close() {
        levels_.pop_back();
        return true;
    }

    std::string file_;
    Json &root_;
    std::vector<Level> levels_;
};

Json parse_json(std::string_view text, const std::string &file) {
    Json root;
    JsonBuilder builder(file, root);
    Json::sax_parse(text, &builder);
    return root;
}

/* Reads the shapes from the file; every complaint names the place. */
class ShapeReader {
public:
    ShapeReader(std::string file, Shapes &shapes) : file_(std::move(file)), shapes_(shapes) {}

    const Shape *read(const Json &json, const std::string &path) {
        expect(json.is_object(), path, "must be a JSON object");
        auto fresh = std::make_unique<Shape>();
        Shape &shape = *fresh;
        shapes_.push_back(std::move(fresh));
        for (const auto &[member, value] : json.items()) {
            if (member == "parameters")
                read_parameters(shape, value, path);
            else if (member == "objects")
                read_objects(shape, value, path);
            else if (member == "instance")
                shape.instance = read(value, join_path(path, "{i}"));
            else if (member == "persistent") {
                expect(value.is_boolean() || value.is_string(), path,
                       "\"persistent\" must be true, false or the name of a parameter");
                shape.persistent = value.is_boolean() && value.get<bool>();
                shape.persistent_once = value.is_string() ? value.get<std::string>() : "";
            } else
                expect(member == "instances", path, "unknown member \"" + member + "\"");
        }
        if (json.contains("instances")) {
            expect(shape.instance, path, "\"instances\" without \"instance\"");
            shape.instances = read_instances(*shape.instance, json["instances"], path);
        }
        if (!shape.persistent_once.empty()) {
            const ParameterShape *once = shape.parameter(shape.persistent_once);
            expect(path.ends_with("{i}") && once && once->type == Type::Bool, path,
                   "\"" + shape.persistent_once + "\" is no bool parameter of an instance");
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
            const std::string at = join_path(path, name);
            expect_name(name, path);
            expect(definition.is_array() && (definition.size() == 2 || definition.size() == 3) &&
                       definition[0].is_string(),
                   at, "must be [type, default] or [type, default, [values]]");
            const auto type = types.find(definition[0].get<std::string>());
            expect(type != types.end(), at, "unknown type \"" + definition[0].get<std::string>() + "\"");
            if (definition[1].is_null())
                shape.parameters.push_back({name, type->second, empty_value(type->second), false});
            else
                shape.parameters.push_back({name, type->second, read_value(type->second, definition[1], at), true});
            if (definition.size() == 3)
                shape.parameters.back().known = read_known(type->second, definition, at);
        }
    }

    std::vector<std::string> read_known(Type type, const Json &definition, const std::string &path) const {
        expect(type == Type::Text && definition[2].is_array() && !definition[2].empty(), path,
               "only a text has a list of values, which must not be empty");
        std::vector<std::string> known;
        for (const Json &one : definition[2]) {
            expect(one.is_string(), path, "each of its values must be a text");
            known.push_back(one.get<std::string>());
        }
        expect(definition[1].is_null() ||
                   std::find(known.begin(), known.end(), definition[1].get<std::string>()) != known.end(),
               path, "its default is none of its values");
        return known;
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
            const Shape *child = read(object, join_path(path, name));
            shape.objects.emplace_back(name, child);
        }
    }

    std::vector<Shape::Initial> read_instances(const Shape &shape, const Json &json, const std::string &path) {
        std::vector<Shape::Initial> all;
        expect(json.is_object(), path, "\"instances\" must be a JSON object");
        for (const auto &[name, content] : json.items()) {
            const std::string at = join_path(path, name);
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
                    one.below[object] = read_instances(*child->second->instance, nested, join_path(at, object));
                }
            all.push_back(std::move(one));
        }
        return all;
    }

    void read_initial_values(const Shape &shape, const Json &json, const std::string &path, Values &values) {
        for (const auto &[name, value] : json.items()) {
            const ParameterShape *parameter = shape.parameter(name);
            expect(parameter, path, "no parameter \"" + name + "\"");
            values[name] = read_value(parameter->type, value, join_path(path, name));
        }
    }

    std::string file_;
    Shapes &shapes_;
};

} // namespace

const Shape *read_shapes(std::string_view json, const std::string &file, Shapes &shapes) {
    return ShapeReader(file, shapes).read(parse_json(json, file), "");
}

bool valid_key(std::string_view key) {
    return !key.empty() && key.size() <= max_name && key.front() != '.' && key.back() != '.' &&
           std::all_of(key.begin(), key.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

} // namespace keel

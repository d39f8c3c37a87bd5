#include "host/control/conversation.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <nlohmann/json.hpp>

#include "host/base/text_forms.h"
#include "host/base/timeline.h"
#include "host/base/trace.h"

namespace keel {

using Json = nlohmann::ordered_json;

namespace {

Json value_json(const Value &value) {
    return std::visit([](const auto &held) { return Json(held); }, value);
}

Json values_json(const Values &values) {
    Json json = Json::object();
    for (const auto &[name, value] : values)
        json[name] = value_json(value);
    return json;
}

Json tree_json(const Node &node) {
    Json parameters = Json::object();
    for (const Parameter &parameter : node.parameters)
        if (parameter.present)
            parameters[parameter.name()] = value_json(parameter.value);
    Json children = Json::array();
    for (const Node &child : node.children)
        children.push_back(tree_json(child));
    return {{"name", node.name}, {"parameters", parameters}, {"children", children}};
}

std::string line_of(const Json &json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string refusal_line(const std::string &path, const std::string &reason) {
    return line_of({{"ok", false}, {"path", path}, {"error", reason}});
}

std::string joined(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

std::string text_member(const Json &message, const char *name) {
    const auto found = message.find(name);
    if (found == message.end() || !found->is_string())
        throw std::invalid_argument(std::string("\"") + name + "\" must be a text");
    return found->get<std::string>();
}

std::size_t number_member(const Json &message, const char *name, std::size_t fallback) {
    const auto found = message.find(name);
    if (found == message.end())
        return fallback;
    if (!found->is_number_unsigned())
        throw std::invalid_argument(std::string("\"") + name + "\" must be a whole number");
    return found->get<std::size_t>();
}

/* The values of a message for the parameters of a node: texts are read as the parameter wants. */
Values read_values(const Json &message, const std::vector<ParameterShape> &parameters) {
    Values values;
    const auto found = message.find("values");
    if (found == message.end())
        return values;
    if (!found->is_object())
        throw std::invalid_argument("\"values\" must be an object");
    for (const auto &[name, json] : found->items()) {
        const auto parameter = std::find_if(parameters.begin(), parameters.end(),
                                            [&, wanted = name](const ParameterShape &p) { return p.name == wanted; });
        if (parameter == parameters.end())
            throw std::invalid_argument("no parameter \"" + name + "\"");
        /* Lists and objects are not written out: they may be nested more deeply than the stack holds. */
        const bool simple = json.is_primitive() && !json.is_null();
        const std::string text = json.is_string() ? json.get<std::string>() : simple ? json.dump() : json.type_name();
        const auto value = simple ? parse_value(parameter->type, text) : std::nullopt;
        const std::string shown = json.is_string() ? "\"" + text + "\"" : text;
        if (!value)
            throw std::invalid_argument("\"" + name + "\" wants a value of type " + type_name(parameter->type) +
                                        ", not " + shown);
        const auto &known = parameter->known;
        if (!known.empty() && std::find(known.begin(), known.end(), to_text(*value)) == known.end())
            throw std::invalid_argument(name + ": " + joined(known) + "; not " + shown);
        values[name] = *value;
    }
    return values;
}

Json event_json(const Event &event) {
    static const char *const kinds[] = {"added", "deleted", "changed", "notification"};
    Json json{{"event", kinds[static_cast<int>(event.kind)]}, {"path", event.path()}};
    if (event.kind == Event::Kind::Custom)
        json["type"] = event.custom_type;
    json["values"] = values_json(event.values);
    return json;
}

Json trace_json(const TraceLine &line) {
    return {{"trace", line.number},
            {"time_ms", line.wall_clock_ms},
            {"level", static_cast<std::uint32_t>(line.level)},
            {"zone", line.zone},
            {"text", line.text}};
}

Json timeline_json(const TimelineEvent &event) {
    Json json{{"timeline", event.number},
              {"time_ms", event.wall_clock_ms},
              {"kind", kind_name(event.kind)},
              {"who", event.who},
              {"what", event.what},
              {"text", event.text}};
    if (!event.options.empty())
        json["options"] = format_hex(event.options);
    return json;
}

/* Whether there may be an object at a path one day: what is missing of it then begins with an instance's name. What
 * there cannot be goes to *missing. */
bool may_exist(const Model &model, std::string path, std::string *missing) {
    while (!model.find(path)) {
        const auto dot = path.rfind('.');
        *missing = path;
        path.erase(dot == std::string::npos ? 0 : dot);
        if (path.empty())
            return false;
    }
    return missing->empty() || model.find(path)->multi;
}

} // namespace

Conversation::Conversation(Model &model, const ControlActions &actions,
                           std::function<void(const std::string &line)> send)
    : model_(model), actions_(actions), send_(std::move(send)) {}

Conversation::~Conversation() {
    end();
}

void Conversation::end() {
    if (ended_)
        return; /* its model may be gone by now */
    ended_ = true;
    model_.unwatch(std::exchange(watch_, 0));
    TraceLog::instance().unfollow(std::exchange(follower_, 0));
}

void Conversation::send(const std::string &line) {
    if (!ended_)
        send_(line);
}

void Conversation::refuse(const std::string &reason) {
    send(refusal_line("", reason));
}

/* A client that does not read may be gone behind any of the lines. */
void Conversation::tell_traces(std::size_t lines, bool follow) {
    const auto &recent = TraceLog::instance().recent();
    for (std::size_t i = recent.size() - std::min(lines, recent.size()); i < recent.size(); ++i)
        send(line_of(trace_json(recent[i])));
    send(line_of({{"ok", true}}));
    if (follow && !follower_ && !ended_)
        follower_ = TraceLog::instance().follow([this](const TraceLine &one) { send(line_of(trace_json(one))); });
}

void Conversation::tell_timeline() {
    for (const TimelineEvent &event : Timeline::instance().events())
        send(line_of(timeline_json(event)));
    send(line_of({{"ok", true}}));
}

void Conversation::watch(const std::string &path) {
    model_.unwatch(watch_);
    watch_ = model_.watch(path, [this](const Event &event) { send(line_of(event_json(event))); });
    send(line_of({{"ok", true}}));
}

void Conversation::look() {
    const auto answer = [this, life = std::weak_ptr(life_)] {
        if (!life.expired())
            send(line_of({{"ok", true}}));
    };
    if (actions_.look)
        actions_.look(answer);
    else
        answer();
}

void Conversation::take_export() {
    if (actions_.export_text)
        send(line_of({{"ok", true}, {"text", actions_.export_text()}}));
    else
        refuse("this host has nothing to export");
}

void Conversation::take_import(const std::string &text) {
    if (!actions_.import_text)
        return refuse("this host imports nothing");
    actions_.import_text(text, [this, life = std::weak_ptr(life_)](const auto &errors, const auto &told) {
        if (life.expired())
            return;
        if (!errors.empty()) {
            send(line_of({{"ok", false}, {"errors", errors}, {"error", "nothing is taken over"}}));
            return;
        }
        const std::string unsafe = actions_.make_safe();
        if (unsafe.empty())
            send(line_of({{"ok", true}, {"told", told}}));
        else
            refuse("done, but not stored, and lost at a restart until it is: " + unsafe);
    });
}

void Conversation::take(const std::string &line) {
    std::string path;
    try {
        const Json message = Json::parse(line);
        if (!message.is_object())
            throw std::invalid_argument("a message must be a JSON object");
        const std::string op = text_member(message, "op");
        if (op == "trace") {
            tell_traces(number_member(message, "lines", 100), message.value("follow", false));
            return;
        }
        if (op == "timeline") {
            tell_timeline();
            return;
        }
        if (op == "look") {
            look();
            return;
        }
        if (op == "export") {
            take_export();
            return;
        }
        if (op == "import") {
            take_import(text_member(message, "text"));
            return;
        }
        path = text_member(message, "path");
        const Node *node = model_.find(path);
        if (op == "watch") {
            std::string missing;
            if (may_exist(model_, path, &missing))
                watch(path);
            else
                send(refusal_line(missing, "there is no such object, and there cannot be one: nothing to watch"));
            return;
        }
        if (!node) {
            send(refusal_line(path, "no such object"));
            return;
        }
        Json answer{{"ok", true}};
        Outcome refusal;
        if (op == "get") {
            answer["tree"] = tree_json(*node);
        } else if (op == "set") {
            refusal = model_.set(path, read_values(message, node->shape->parameters));
        } else if (op == "add") {
            std::string name;
            const auto key = message.contains("key") ? std::optional(text_member(message, "key")) : std::nullopt;
            refusal = model_.add(path, key, read_values(message, model_.instance_parameters(path)), &name);
            answer["name"] = name;
        } else if (op == "del") {
            const std::string objection =
                actions_.objection_to_deletion ? actions_.objection_to_deletion(path) : std::string();
            refusal = objection.empty() ? model_.remove(path) : Refusal{path, objection};
        } else {
            throw std::invalid_argument("no operation \"" + op + "\"");
        }
        if (op != "get" && !refusal)
            if (const std::string error = actions_.make_safe(); !error.empty())
                refusal = Refusal{path, "done, but not stored, and lost at a restart until it is: " + error};
        send(refusal ? refusal_line(refusal->path, refusal->reason) : line_of(answer));
    } catch (const Json::exception &) {
        send(refusal_line(path, "not understood: malformed JSON or a member of the wrong type"));
    } catch (const std::invalid_argument &error) {
        send(refusal_line(path, error.what()));
    }
}

} // namespace keel

#include "host/control/control.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "host/base/trace.h"

namespace keel {

using Json = nlohmann::ordered_json;

namespace {

constexpr std::size_t max_line = 65536;
constexpr std::size_t max_clients = 32;
constexpr std::size_t max_backlog = std::size_t{4} * 1024 * 1024; /* bytes that a slow reader may leave unread */

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

std::string text_member(const Json &message, const char *name) {
    const auto found = message.find(name);
    if (found == message.end() || !found->is_string())
        throw std::invalid_argument(std::string("\"") + name + "\" must be a text");
    return found->get<std::string>();
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
        const std::string text = json.is_string() ? json.get<std::string>() : json.dump();
        const auto value = json.is_primitive() && !json.is_null() ? parse_value(parameter->type, text) : std::nullopt;
        if (!value)
            throw std::invalid_argument("\"" + name + "\" wants a value of type " + type_name(parameter->type) +
                                        ", not " + json.dump(-1, ' ', false, Json::error_handler_t::replace));
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

void make_folder(const std::filesystem::path &folder) {
    if (folder.empty() || std::filesystem::exists(folder))
        return;
    std::filesystem::create_directories(folder.parent_path());
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        throw std::runtime_error("the socket's folder " + folder.string() + " cannot be made: " + std::strerror(errno));
}

bool removable(const std::string &path) {
    struct stat found {};
    return lstat(path.c_str(), &found) != 0 || S_ISSOCK(found.st_mode);
}

bool somebody_listens(const sockaddr_un &address) {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool alive = probe >= 0 && connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    if (probe >= 0)
        close(probe);
    return alive;
}

} // namespace

struct Control::Listener {
    uv_pipe_t handle;
    Control *owner;
};

struct Control::Client {
    uv_pipe_t handle{};
    Control *owner = nullptr;
    std::string input;
    char buffer[4096];
    Model::WatchId watch = 0;
    std::uint64_t follower = 0;
    bool closing = false;

    struct Write {
        uv_write_t request;
        std::string data;
    };

    void send(const std::string &line) {
        if (closing)
            return;
        auto *stream = reinterpret_cast<uv_stream_t *>(&handle);
        if (uv_stream_get_write_queue_size(stream) > max_backlog) {
            owner->drop(*this);
            return;
        }
        auto *write = new Write{{}, line};
        write->request.data = write;
        uv_buf_t data = uv_buf_init(write->data.data(), static_cast<unsigned>(write->data.size()));
        const int result = uv_write(&write->request, stream, &data, 1,
                                    [](uv_write_t *request, int) { delete static_cast<Write *>(request->data); });
        if (result != 0) {
            delete write;
            owner->drop(*this);
        }
    }
};

Control::Control(UvLoop &loop, Model &model, std::string socket_path, std::function<std::string()> make_safe)
    : loop_(loop), model_(model), path_(std::move(socket_path)), make_safe_(std::move(make_safe)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path)
        throw std::runtime_error(path_ + ": too long for a socket's path");
    std::copy(path_.begin(), path_.end(), address.sun_path);
    if (somebody_listens(address))
        throw std::runtime_error(path_ + ": another keelhost listens on this socket");
    make_folder(std::filesystem::path(path_).parent_path());
    if (!removable(path_)) /* it is somebody's, perhaps by a slip in the options */
        throw std::runtime_error(path_ + " is no socket, and is left as it is: move it away, or choose another path");
    unlink(path_.c_str());

    const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const mode_t before = umask(0177); /* mode 0600 from the first moment on */
    const bool bound = listening >= 0 && bind(listening, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    const int bind_error = errno;
    umask(before);
    if (!bound) {
        if (listening >= 0)
            close(listening);
        throw std::runtime_error(path_ + ": " + std::strerror(bind_error));
    }
    listener_ = new Listener{{}, this};
    uv_pipe_init(loop_.handle(), &listener_->handle, 0);
    listener_->handle.data = listener_;
    uv_pipe_open(&listener_->handle, listening);
    uv_listen(reinterpret_cast<uv_stream_t *>(&listener_->handle), 16, [](uv_stream_t *stream, int status) {
        if (status == 0)
            static_cast<Listener *>(stream->data)->owner->accept();
    });
}

Control::~Control() {
    while (!clients_.empty())
        drop(**clients_.begin());
    uv_close(reinterpret_cast<uv_handle_t *>(&listener_->handle),
             [](uv_handle_t *handle) { delete static_cast<Listener *>(handle->data); });
    if (removable(path_))
        unlink(path_.c_str());
}

void Control::accept() {
    auto *client = new Client;
    client->owner = this;
    uv_pipe_init(loop_.handle(), &client->handle, 0);
    client->handle.data = client;
    clients_.insert(client);
    auto *stream = reinterpret_cast<uv_stream_t *>(&client->handle);
    if (uv_accept(reinterpret_cast<uv_stream_t *>(&listener_->handle), stream) != 0 || clients_.size() > max_clients) {
        drop(*client);
        return;
    }
    uv_read_start(
        stream,
        [](uv_handle_t *handle, std::size_t, uv_buf_t *room) {
            auto *reader = static_cast<Client *>(handle->data);
            *room = uv_buf_init(reader->buffer, sizeof reader->buffer);
        },
        [](uv_stream_t *from, ssize_t size, const uv_buf_t *read) {
            auto *reader = static_cast<Client *>(from->data);
            if (size < 0) {
                reader->owner->drop(*reader);
                return;
            }
            reader->input.append(read->base, static_cast<std::size_t>(size));
            for (auto end = reader->input.find('\n'); end != std::string::npos && !reader->closing;
                 end = reader->input.find('\n')) {
                const std::string line = reader->input.substr(0, end);
                reader->input.erase(0, end + 1);
                reader->owner->take(*reader, line);
            }
            if (reader->input.size() > max_line && !reader->closing) {
                reader->send(refusal_line("", "the line is longer than 65536 bytes"));
                reader->owner->drop(*reader);
            }
        });
}

void Control::drop(Client &client) {
    if (client.closing)
        return;
    client.closing = true;
    clients_.erase(&client);
    if (client.watch)
        model_.unwatch(client.watch);
    if (client.follower)
        TraceLog::instance().unfollow(client.follower);
    uv_close(reinterpret_cast<uv_handle_t *>(&client.handle),
             [](uv_handle_t *handle) { delete static_cast<Client *>(handle->data); });
}

void Control::take(Client &client, const std::string &line) {
    std::string path;
    try {
        const Json message = Json::parse(line);
        if (!message.is_object())
            throw std::invalid_argument("a message must be a JSON object");
        const std::string op = text_member(message, "op");
        if (op == "trace") {
            const std::size_t wanted = message.value("lines", 100U);
            const auto &lines = TraceLog::instance().recent();
            for (std::size_t i = lines.size() - std::min(wanted, lines.size()); i < lines.size(); ++i)
                client.send(line_of(trace_json(lines[i])));
            client.send(line_of({{"ok", true}}));
            if (message.value("follow", false) && !client.follower)
                client.follower = TraceLog::instance().follow(
                    [&client](const TraceLine &one) { client.send(line_of(trace_json(one))); });
            return;
        }
        path = text_member(message, "path");
        const Node *node = model_.find(path);
        if (op == "watch") {
            if (client.watch)
                model_.unwatch(client.watch);
            client.watch =
                model_.watch(path, [&client](const Event &event) { client.send(line_of(event_json(event))); });
            client.send(line_of({{"ok", true}}));
            return;
        }
        if (!node) {
            client.send(refusal_line(path, "no such object"));
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
            refusal = model_.remove(path);
        } else {
            throw std::invalid_argument("no operation \"" + op + "\"");
        }
        if (op != "get" && !refusal)
            if (const std::string error = make_safe_(); !error.empty())
                refusal = Refusal{path, "done, but not stored, and lost at a restart until it is: " + error};
        client.send(refusal ? refusal_line(refusal->path, refusal->reason) : line_of(answer));
    } catch (const Json::exception &) {
        client.send(refusal_line(path, "not understood: malformed JSON or a member of the wrong type"));
    } catch (const std::invalid_argument &error) {
        client.send(refusal_line(path, error.what()));
    }
}

} // namespace keel

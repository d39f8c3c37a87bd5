#include "host/control/control.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <utility>

#include "host/base/trace.h"
#include "host/control/conversation.h"

namespace keel {

namespace {

constexpr std::size_t max_line = std::size_t{1} << 20; /* bytes; an import is one line */
constexpr std::size_t max_clients = 32;
constexpr std::uint64_t look_ms = 10000;                          /* whether the socket is still there */
constexpr std::size_t max_backlog = std::size_t{4} * 1024 * 1024; /* bytes that a slow reader may leave unread */

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

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error(path + ": too long for a socket's path");
    std::copy(path.begin(), path.end(), address.sun_path);
    return address;
}

/* One that takes no connections just now listens as well. */
bool somebody_listens(const sockaddr_un &address) {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool alive =
        probe >= 0 &&
        (connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 || errno == EAGAIN);
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
    std::optional<Conversation> conversation;
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

Control::Control(UvLoop &loop, Model &model, std::string socket_path, ControlActions actions)
    : loop_(loop), model_(model), path_(std::move(socket_path)), actions_(std::move(actions)) {
    listen();
    looking_ = loop_.start_timer(look_ms, [this] { look_at_socket(); });
}

void Control::require_free(const std::string &path) {
    if (somebody_listens(address_of(path)))
        throw std::runtime_error(path + ": another keelhost listens on this socket");
}

Control::~Control() {
    loop_.cancel_timer(looking_);
    while (!clients_.empty())
        drop(**clients_.begin());
    if (is_there())
        unlink(path_.c_str());
    close_listener();
}

void Control::listen() {
    sockaddr_un address = address_of(path_);
    require_free(path_);
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
    struct stat made {};
    lstat(path_.c_str(), &made);
    inode_ = made.st_ino;
    listener_ = new Listener{{}, this};
    uv_pipe_init(loop_.handle(), &listener_->handle, 0);
    listener_->handle.data = listener_;
    uv_pipe_open(&listener_->handle, listening);
    const int failed =
        uv_listen(reinterpret_cast<uv_stream_t *>(&listener_->handle), 16, [](uv_stream_t *stream, int status) {
            if (status == 0)
                static_cast<Listener *>(stream->data)->owner->accept();
        });
    if (failed == 0)
        return;
    close_listener();
    unlink(path_.c_str());
    throw std::runtime_error(path_ + ": " + uv_strerror(failed));
}

void Control::close_listener() {
    if (listener_)
        uv_close(reinterpret_cast<uv_handle_t *>(&listener_->handle),
                 [](uv_handle_t *handle) { delete static_cast<Listener *>(handle->data); });
    listener_ = nullptr;
}

bool Control::is_there() const {
    struct stat found {};
    return listener_ && lstat(path_.c_str(), &found) == 0 && S_ISSOCK(found.st_mode) && found.st_ino == inode_;
}

void Control::look_at_socket() {
    looking_ = loop_.start_timer(look_ms, [this] { look_at_socket(); });
    if (is_there())
        return;
    close_listener();
    try {
        listen();
        trace(Level::Warning, "control", "%s was taken away: it is made anew", path_.c_str());
        unreachable_ = false;
    } catch (const std::exception &error) {
        if (!std::exchange(unreachable_, true))
            trace(Level::Error, "control", "nobody reaches this host any more, it is tried again: %s", error.what());
    }
}

void Control::accept() {
    auto *client = new Client;
    client->owner = this;
    client->conversation.emplace(model_, actions_, [client](const std::string &line) { client->send(line); });
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
                reader->conversation->take(line);
            }
            if (reader->input.size() > max_line && !reader->closing) {
                reader->conversation->refuse("the line is longer than 1048576 bytes");
                reader->owner->drop(*reader);
            }
        });
}

void Control::drop(Client &client) {
    if (client.closing)
        return;
    client.closing = true;
    clients_.erase(&client);
    client.conversation->end();
    uv_close(reinterpret_cast<uv_handle_t *>(&client.handle),
             [](uv_handle_t *handle) { delete static_cast<Client *>(handle->data); });
}

} // namespace keel

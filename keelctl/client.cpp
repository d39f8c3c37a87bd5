#include "keelctl/client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "keelctl/interruption.h"

namespace keelctl {

namespace {

constexpr const char *closed = "the host closed the connection";

} // namespace

std::string Client::no_answer() const {
    return "the host has not answered for " + std::to_string(patience_.count()) +
           " s: it hangs, or waits for a command of its own";
}

void Client::connect() {
    if (socket_ >= 0)
        return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name_.copy(address.sun_path, sizeof address.sun_path - 1);
    socket_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket_ < 0)
        lost(std::strerror(errno));
    apply_patience();
    if (::connect(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        return;
    if (errno == EAGAIN) /* it takes no connections, so that they have come to stand in a queue */
        lost(no_answer());
    lost(std::strerror(errno) + std::string("; is keelhost running, and is this its socket (--socket)?"));
}

void Client::apply_patience() const {
    const timeval patience{patience_.count(), 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

void Client::set_patience(std::chrono::seconds patience) {
    patience_ = patience;
    if (socket_ >= 0)
        apply_patience();
}

Client::~Client() {
    if (socket_ >= 0)
        close(socket_);
}

void Client::lost(const std::string &reason) {
    if (socket_ >= 0)
        close(std::exchange(socket_, -1));
    input_.clear();
    throw Unreachable(name_ + ": " + reason);
}

int Client::host_process() {
    connect();
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(socket_, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.pid : 0;
}

void Client::send(const Json &message) {
    connect();
    const std::string line = message.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    std::size_t sent = 0;
    while (sent < line.size()) {
        const ssize_t count = ::send(socket_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR && !Interruption::wanted())
            continue;
        if (count <= 0)
            lost(count < 0 && errno == EAGAIN ? no_answer() : count < 0 && errno == EINTR ? "interrupted" : closed);
        sent += static_cast<std::size_t>(count);
    }
}

std::optional<Json> Client::next() {
    return next_line(false);
}

std::optional<Json> Client::next_event() {
    return next_line(true);
}

std::optional<Json> Client::next_line(bool whenever) {
    for (;;) {
        const auto end = input_.find('\n');
        if (end != std::string::npos) {
            const std::string line = input_.substr(0, end);
            input_.erase(0, end + 1);
            return Json::parse(line);
        }
        char buffer[65536];
        const ssize_t count = recv(socket_, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EINTR && !Interruption::wanted())
            continue;
        if (count < 0 && errno == EAGAIN && whenever)
            continue;
        if (count < 0 && errno == EAGAIN)
            lost(no_answer());
        if (count < 0 && errno == EINTR)
            lost("interrupted");
        if (count <= 0)
            return std::nullopt;
        input_.append(buffer, static_cast<std::size_t>(count));
    }
}

Json Client::ask(const Json &message) {
    send(message);
    const auto answer = next();
    if (!answer)
        lost(closed);
    if (!answer->value("ok", false)) {
        const std::string path = answer->value("path", "");
        throw Refused((path.empty() ? "" : path + ": ") + answer->value("error", "refused"));
    }
    return *answer;
}

void Client::look() {
    try {
        ask({{"op", "look"}});
    } catch (const Refused &) { /* then the model says less */
    }
}

const Json &Client::tree(const std::string &path) {
    const auto known = trees_.find(path);
    if (known != trees_.end())
        return known->second;
    Json tree;
    try {
        tree = ask({{"op", "get"}, {"path", path}})["tree"];
    } catch (const Refused &) {
        tree = {{"name", ""}, {"parameters", Json::object()}, {"children", Json::array()}};
    }
    return trees_[path] = std::move(tree);
}

} // namespace keelctl

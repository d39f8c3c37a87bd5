#include "keelctl/client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace keelctl {

Client::Client(const std::string &socket) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), name_(socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket.copy(address.sun_path, sizeof address.sun_path - 1);
    if (socket_ < 0 || connect(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0) {
        const std::string reason = std::strerror(errno);
        if (socket_ >= 0)
            close(socket_);
        throw Unreachable(socket + ": " + reason + "; is keelhost running, and is this its socket (--socket)?");
    }
}

Client::~Client() {
    close(socket_);
}

void Client::send(const Json &message) {
    const std::string line = message.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    std::size_t sent = 0;
    while (sent < line.size()) {
        const ssize_t count = ::send(socket_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            throw Unreachable(name_ + ": the host closed the connection");
        sent += static_cast<std::size_t>(count);
    }
}

std::optional<Json> Client::next() {
    for (;;) {
        const auto end = input_.find('\n');
        if (end != std::string::npos) {
            const std::string line = input_.substr(0, end);
            input_.erase(0, end + 1);
            return Json::parse(line);
        }
        char buffer[65536];
        const ssize_t count = recv(socket_, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return std::nullopt;
        input_.append(buffer, static_cast<std::size_t>(count));
    }
}

Json Client::ask(const Json &message) {
    send(message);
    const auto answer = next();
    if (!answer)
        throw Unreachable(name_ + ": the host closed the connection");
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

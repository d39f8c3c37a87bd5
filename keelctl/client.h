/*
 * keelctl's end of the control socket.
 */
#ifndef KEELCTL_CLIENT_H
#define KEELCTL_CLIENT_H

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

namespace keelctl {

using Json = nlohmann::ordered_json;

/* The host refused: what() says why, on which object. */
class Refused : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* The host cannot be talked to. */
class Unreachable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* Connects when it is first needed; throws Unreachable then, and at each later call, when that cannot be done. */
class Client {
public:
    explicit Client(std::string socket) : name_(std::move(socket)) {}
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client();

    /* Sends a message and returns its answer; throws Refused when it says no. */
    Json ask(const Json &message);
    void send(const Json &message);
    /* The next line; nothing when the host has closed the connection. */
    std::optional<Json> next();
    /* Has the host look at what it does not follow by itself (the groups joined), and write it into the model. */
    void look();
    /* The tree at a path, empty when there is none; asked for once, so that all that is told of it is of one moment. */
    const Json &tree(const std::string &path);
    /* Lets go of the trees, so that what is told from here on is of a later moment. */
    void forget_trees() { trees_.clear(); }
    /* The host's process, 0 when the kernel does not tell. */
    int host_process();

private:
    void connect();
    /* Lets go of the connection, so that the next call tries anew. */
    [[noreturn]] void lost();

    int socket_ = -1;
    std::string name_;
    std::string input_;
    std::map<std::string, Json> trees_;
};

} // namespace keelctl

#endif

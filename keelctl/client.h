/*
 * keelctl's end of the control socket.
 */
#ifndef KEELCTL_CLIENT_H
#define KEELCTL_CLIENT_H

#include <chrono>
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

/* Connects when it is first needed; throws Unreachable then, and at each later call, when that cannot be done, or when
 * the host has said nothing for longer than one waits for it. What an Interruption wants ends a wait as well. */
class Client {
public:
    /* For an answer: longer than anything takes that a sound host does. */
    static constexpr std::chrono::seconds usual_patience{10};

    explicit Client(std::string socket) : name_(std::move(socket)) {}
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client();

    /* Sends a message and returns its answer; throws Refused when it says no. */
    Json ask(const Json &message);
    void send(const Json &message);
    /* The next line of an answer; nothing when the host has closed the connection. */
    std::optional<Json> next();
    /* The next line, whenever it comes. */
    std::optional<Json> next_event();
    /* How long an answer is waited for from here on. */
    void set_patience(std::chrono::seconds patience);
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
    void apply_patience() const;
    std::string no_answer() const;
    std::optional<Json> next_line(bool whenever);
    /* Lets go of the connection, so that the next call tries anew. */
    [[noreturn]] void lost(const std::string &reason);

    int socket_ = -1;
    std::string name_;
    std::string input_;
    std::chrono::seconds patience_ = usual_patience;
    std::map<std::string, Json> trees_;
};

} // namespace keelctl

#endif

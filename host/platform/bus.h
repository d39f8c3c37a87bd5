/*
 * The bus between the plug-in and the data model. What the plug-in sends waits in one queue and is carried out on the
 * model in order; what comes of it waits in another and is handed to the handlers in order.
 */
#ifndef HOST_PLATFORM_BUS_H
#define HOST_PLATFORM_BUS_H

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/platform/attachment.h"
#include "host/platform/hull_object.h"
#include "platform/keel.h"

struct notification_parameter {
    std::string name;
    variant_t value{};
};

struct notification {
    std::uint32_t type = 0;
    std::string path;
    std::vector<std::unique_ptr<notification_parameter>> parameters;

    ~notification() {
        for (const auto &one : parameters)
            variant_cleanup(&one->value);
    }
};

struct reply_item {
    std::uint32_t type = 0;
    std::unique_ptr<object> content;
    std::unique_ptr<notification> news;
    std::uint32_t error = 0;
    std::string description;
    std::string info;
    reply_item *next = nullptr; /* in the reply */
};

struct reply {
    std::vector<std::unique_ptr<reply_item>> items;
    std::string path; /* of the request, for traces */
};

struct request_parameter {
    std::string name;
    variant_t value{};
    bool valued = false;
};

struct request {
    enum class Kind { Get, Set, Add, Delete };

    Kind kind = Kind::Get;
    std::string path; /* for Add: the parent */
    std::optional<std::string> key;
    int depth = 0;
    std::uint32_t attributes = 0;
    bool object_items = false; /* a watch that reports objects, not notifications */
    std::vector<std::unique_ptr<request_parameter>> parameters;
    void *data = nullptr;
    request_reply_item_handler_t on_item = nullptr;
    request_done_handler_t on_done = nullptr;
    reply answer;
    bool sent = false;
    bool destroyed = false;
    keel::Model::WatchId watch = 0; /* 0: not open as a watch */
    std::uint64_t since = 0;        /* the model's latest event when it was answered */

    ~request() {
        for (const auto &one : parameters)
            variant_cleanup(&one->value);
    }

    bool wants_watch() const {
        return kind == Kind::Get && (object_items || (attributes & (request_notify_values | request_notify_added |
                                                                    request_notify_deleted | request_notify_custom)));
    }
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const auto &one : parameters)
            all.push_back(one->name);
        return all;
    }
};

namespace keel {

class Bus {
public:
    /* A new request; null for an empty path. It is the plug-in's until it is pushed or destroyed. */
    request *create(request::Kind kind, std::string path, std::optional<std::string> key = std::nullopt);
    void destroy(request *raw);

    bool send(request *raw);
    void push(request *raw, std::string owner, std::string description);
    bool invoke(request *raw, const std::string &owner, const std::string &description);
    void carry_out_pending();

    /* What the plug-in's handlers took so far, ns. */
    std::uint64_t handler_ns() const { return handler_ns_; }

private:
    using RequestRef = std::shared_ptr<request>;

    struct Operation {
        RequestRef target;
        std::string owner;
        std::string description;
        bool pushed;
    };

    struct Delivery {
        RequestRef target;
        std::unique_ptr<reply_item> item; /* null: the request is complete */
    };

    class Stopwatch;

    void prepare();
    RequestRef find(request *raw) const;
    void enqueue(Operation operation);
    void carry_out(const Operation &operation);
    void open_watch(const RequestRef &target);
    void close_watch(request &target);

    void on_event(const RequestRef &target, const Event &event);
    void tell_object(const RequestRef &target, const Event &event, int level);
    void tell_news(const RequestRef &target, const Event &event, const std::string &path);

    void deliver(Delivery delivery);
    void hand_over(Delivery delivery);

    Model *model_ = nullptr;
    std::map<request *, RequestRef> open_; /* every request that the plug-in holds */
    std::deque<Operation> pending_;
    std::deque<Delivery> deliveries_;
    std::uint64_t handler_ns_ = 0;
    int handler_depth_ = 0; /* more than 1 in the handler of a request that a handler invokes */
};

extern Bus bus;

} // namespace keel

#endif

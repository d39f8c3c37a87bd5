/* Paths, names and values into the model and over the plug-in's bus. What is refused changes nothing; what is done is
 * told in events from which the whole model could be formed; the plug-in sees the objects as they are. */
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "host/base/trace.h"
#include "host/gateway/graph.h"
#include "host/platform/plugin.h"
#include "platform/keel.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;
using fuzz::require;

namespace {

constexpr const char *box = R"({"objects": {
  "Box": {"parameters": {"Name": ["text", "a"], "Count": ["uint8", 1], "On": ["bool", false], "Free": ["int32", null]},
          "objects": {"Item": {"instance": {"parameters": {"Value": ["text", "x"]},
                                            "objects": {"b": {"parameters": {"N": ["uint64", 0]}},
                                                        "Sub": {"instance": {"parameters": {"N": ["int32", 0]}}}}},
                               "instances": {"eth1": {}, "eth1.20": {"values": {"Value": "y"}}}}}}}})";
constexpr const char *names[] = {"Box", "Item", "eth1", "eth1.20", "20", "b", "Sub", "1", "a", "a.b", "", "none"};
constexpr const char *parameters[] = {"Name", "Count", "On", "Free", "Value", "N", "", "None"};
constexpr std::size_t most_steps = 48;

/* No program is run here. */
class NoRunner : public ProcessRunner {
public:
    bool run(const std::vector<std::string> &, OnExit) override { return false; }
};

/* Objects by the names on their path, as the events tell of them. */
using Told = std::map<std::vector<std::string>, Values>;

class Play {
public:
    Play(const fuzz::Tree &tree, const std::uint8_t *data, std::size_t size) : input_(data, size) {
        tree.plant(model_);
        each(*model_.find(""), [this](const Node &node) { told_[node.steps()] = node.values(); });
        watch_ = model_.watch("", [this](const Event &event) { hear(event); });
        host_attach(loop_, graph_, runner_);
    }
    ~Play() {
        host_detach();
        model_.unwatch(watch_);
    }
    Play(const Play &) = delete;
    Play &operator=(const Play &) = delete;

    void run() {
        for (std::size_t step = 0; step < most_steps && !input_.empty(); ++step)
            take_step();
        loop_.run_until_idle();
        fuzz::check_model(model_);
        Told now;
        each(*model_.find(""), [&](const Node &node) { now[node.steps()] = node.values(); });
        require(now == told_, "the events tell what the model holds");
    }

private:
    template <typename Visit> static void each(const Node &node, const Visit &visit) {
        visit(node);
        for (const Node &child : node.children)
            each(child, visit);
    }

    void hear(const Event &event) {
        require(event.number == ++heard_, "every event is told once, in order");
        if (event.kind == Event::Kind::Deleted) {
            require(told_[event.steps] == event.values, "an instance goes with the values it had");
            std::erase_if(told_, [&](const auto &one) {
                const bool gone = one.first.size() >= event.steps.size() &&
                                  std::equal(event.steps.begin(), event.steps.end(), one.first.begin());
                const bool instance = one.first.size() % 2 == 1 && one.first.size() > event.steps.size();
                require(!gone || !instance, "the instances below are told first");
                return gone;
            });
        } else if (event.kind == Event::Kind::Added) {
            require(!told_.contains(event.steps), "an instance comes once");
            told_[event.steps] = event.values;
            std::vector<std::string> below = event.steps;
            if (event.steps.size() == 3) { /* an item has two objects from the start */
                below.emplace_back("b");
                told_[below] = {{"N", std::int64_t{0}}};
                below.back() = "Sub";
                told_[below] = {};
            }
        } else {
            for (const auto &[name, value] : event.values) {
                const auto before = told_[event.steps].find(name);
                require(before == told_[event.steps].end() || before->second == event.before.at(name),
                        "a change tells the value before");
                told_[event.steps][name] = value;
            }
        }
    }

    std::string name() { return names[input_.below(std::size(names))]; }

    std::string path() {
        const std::size_t kind = input_.below(8);
        if (kind == 0)
            return input_.text();
        if (kind < 5)
            return fuzz::some_path(model_, input_);
        std::string all = "Box";
        for (std::size_t depth = input_.below(6); depth > 0; --depth)
            all += "." + name();
        return all;
    }

    Value value() {
        switch (input_.below(4)) {
        case 0:
            return input_.text();
        case 1:
            return input_.flag();
        case 2:
            return std::int64_t{input_.byte()};
        default:
            return static_cast<std::int64_t>(std::uint64_t{input_.number()} << 32 | input_.number());
        }
    }

    Values values() {
        Values all;
        for (std::size_t count = input_.below(3); count > 0; --count) {
            const std::string parameter = parameters[input_.below(std::size(parameters))];
            all[parameter] = value();
        }
        return all;
    }

    /* By the model's own hand, with its answer. */
    void write(std::size_t kind, const std::string &path) {
        const std::uint64_t before = model_.generation();
        const std::uint64_t events = model_.latest_event();
        std::string added;
        Outcome refusal;
        if (kind == 0) {
            refusal = model_.set(path, values());
        } else if (kind == 1) {
            const auto key = input_.flag() ? std::optional(input_.flag() ? input_.text() : name()) : std::nullopt;
            refusal = model_.add(path, key, values(), &added);
        } else {
            refusal = model_.remove(path);
        }
        if (refusal) {
            require(!refusal->reason.empty(), "a refusal has a reason");
            require(model_.generation() == before && model_.latest_event() == events, "and changes nothing");
        } else if (kind == 1) {
            const Node *parent = model_.find(path);
            require(parent && parent->child(added) && parent->generation == model_.generation(),
                    "what was added is there");
        }
    }

    /* By a request of the plug-in's, carried out now or later. */
    void request(std::size_t kind, const std::string &path) {
        request_t *request = nullptr;
        if (kind == 0)
            request = keel_request_create_setObject("%s", path.c_str());
        else if (kind == 1)
            request = request_create_addInstance(path.c_str(), 0, input_.flag() ? name().c_str() : nullptr, 0);
        else
            request = keel_request_create_deleteInstance("%s", path.c_str());
        for (const auto &[parameter, one] : kind < 2 ? values() : Values()) {
            variant_t variant{};
            if (const auto *text = std::get_if<std::string>(&one))
                variant_setChar(&variant, text->c_str());
            else if (const auto *flag = std::get_if<bool>(&one))
                variant_setBool(&variant, *flag);
            else
                variant_setInt32(&variant, static_cast<std::int32_t>(std::get<std::int64_t>(one)));
            request_addParameter(request, parameter.c_str(), &variant);
            variant_cleanup(&variant);
        }
        if (input_.flag())
            keel_request_push("fuzz", rig_getSysbus(), request, "request");
        else
            keel_request_invoke("fuzz", rig_getSysbus(), request, "request");
    }

    /* The plug-in's copy of an object is the object as it is, after all that it has pushed. */
    void compare(const std::string &path) {
        object_t *object = hull_client_get_object(rig_getSysbus(), path.c_str());
        const Node *node = path.c_str()[0] == '\0' ? nullptr : model_.find(path.c_str()); /* the root is no object */
        require(!object == !node, path + " is there, or is not");
        if (!object)
            return;
        char *shown = object_pathChar(object, 1);
        require(shown && node->path() == shown, path + " has its path");
        std::free(shown);
        for (const auto &[name, held] : node->values()) {
            char *text = variant_char(object_parameterValue(object, name.c_str()));
            const std::string whole = to_text(held); /* of which C reads what is before a zero byte */
            require(text && whole.substr(0, whole.find('\0')) == text, path + " has its values");
            std::free(text);
        }
        std::size_t count = 0;
        for (object_t *one = object_firstInstance(object); one; one = object_nextInstance(one))
            ++count;
        require(count == (node->multi ? node->children.size() : 0), path + " has its instances");
    }

    void take_step() {
        const std::size_t kind = input_.below(12);
        if (kind == 11) {
            loop_.run_until_idle();
            return;
        }
        const std::string where = path();
        if (kind < 5)
            write(kind % 3, where);
        else if (kind < 9)
            request((kind - 5) % 3, where);
        else if (kind == 9)
            compare(where);
        else
            watch(where);
    }

    void watch(const std::string &path) {
        constexpr std::uint32_t all_news = request_notify_values | request_notify_added | request_notify_deleted;
        request_t *request = request_create_getObject(path.c_str(), static_cast<int>(input_.below(4)) - 1, all_news);
        request_setReplyItemHandler(request, [](request_t *own, reply_item_t *item, sysbus_t *, sysbus_t *, void *) {
            const notification_t *news = reply_item_notification(item);
            const std::string at = request_path(own);
            const std::string below = news ? notification_objectPath(news) : at;
            require(below == at || below.starts_with(at + "."), "news of a watch lie below its path");
            return reply_item_type(item) != 0;
        });
        hull_sendRequest(rig_getHull(), rig_getSysbus(), request); /* which the end of the connection takes away */
    }

    fuzz::Input input_;
    SimLoop loop_;
    Model model_{loop_};
    InterfaceGraph graph_{model_};
    NoRunner runner_;
    Told told_;
    std::uint64_t heard_ = 0;
    Model::WatchId watch_ = 0;
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const fuzz::Tree tree(box);
    Play(tree, data, size).run();
    return 0;
}

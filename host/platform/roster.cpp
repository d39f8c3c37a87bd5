/*
 * The plug-in's view of the LAN's devices: platform/roster.h on "Hosts.Host" of the data model.
 */
#include "platform/roster.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/base/trace.h"
#include "host/model/expression.h"
#include "host/model/recheck.h"
#include "host/platform/attachment.h"

using namespace keel;

namespace {

constexpr const char *devices_path = "Hosts.Host";
constexpr std::size_t device_depth = 3; /* names along a device's path */

using Device = std::vector<Parameter>; /* those that have a value */

const Parameter *parameter_of(const Device &device, const std::string &name) {
    const auto found =
        std::find_if(device.begin(), device.end(), [&](const Parameter &one) { return one.name() == name; });
    return found == device.end() ? nullptr : &*found;
}

std::string text_of(const Device &device, const std::string &name) {
    const Parameter *parameter = parameter_of(device, name);
    return parameter && parameter->type() == Type::Text ? std::get<std::string>(parameter->value) : "";
}

bool holds(const Device &device, const Expression::Word &word) {
    if (!word.value)
        return has_word(text_of(device, "Tags"), word.name);
    const Parameter *parameter = parameter_of(device, word.name);
    return parameter && parse_value(parameter->type(), *word.value) == parameter->value;
}

bool same(const Device &a, const Device &b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const Parameter &x, const Parameter &y) {
        return x.name() == y.name() && x.value == y.value;
    });
}

/* The device's parameters by their names, and its addresses as a list, since a device may come to have several. */
void to_map(const Device &device, variant_t *map) {
    variant_initialize(map, variant_type_map);
    for (const Parameter &one : device) {
        variant_t value;
        to_variant(one.type(), one.value, &value);
        variant_map_add(variant_da_map(map), one.name().c_str(), &value);
        variant_cleanup(&value);
    }
    variant_t addresses{};
    variant_initialize(&addresses, variant_type_list);
    if (const std::string address = text_of(device, "IPAddress"); !address.empty()) {
        variant_map_t entry;
        variant_map_initialize(&entry);
        variant_map_addChar(&entry, "Address", address.c_str());
        variant_list_addMapCopy(variant_da_list(&addresses), &entry);
        variant_map_cleanup(&entry);
    }
    variant_map_add(variant_da_map(map), "IPv4Address", &addresses);
    variant_cleanup(&addresses);
}

} // namespace

struct roster_query {
    Expression expression;
    std::string name;
    roster_handler_t handler;
    std::map<std::string, Device> matching; /* as the handler was told last */
    bool open = true;

    /* One call of the handler, which may close the query. */
    void tell(const std::string &key, const Device &device, int action) {
        variant_t map{};
        to_map(device, &map);
        handler(this, key.c_str(), &map, action);
        variant_cleanup(&map);
    }

    /* Tells of what has come of a device since it was told last; null: it is gone. */
    void compare(const std::string &key, const Device *device) {
        const auto told = matching.find(key);
        const bool matches = device && satisfied_by(*device);
        if (told == matching.end()) {
            if (matches) {
                matching[key] = *device;
                tell(key, *device, roster_action_match);
            }
        } else if (!matches) {
            const Device last = std::move(told->second);
            matching.erase(told);
            tell(key, device ? *device : last, roster_action_unmatch);
        } else if (!same(told->second, *device)) {
            told->second = *device;
            tell(key, *device, roster_action_change);
        }
    }

    /* Whether it was told that the device matches, and the device does not any more. */
    bool leaves(const std::string &key, const Device *device) const {
        return matching.contains(key) && !(device && satisfied_by(*device));
    }

private:
    bool satisfied_by(const Device &device) const {
        return expression.evaluate([&](const Expression::Word &word) { return holds(device, word); });
    }
};

namespace {

/* All open queries, in the order of their opening. A query is told of the devices that have changed; a new one of all.
 */
class Roster {
public:
    roster_query *open(Expression expression, std::string name, roster_handler_t handler) {
        prepare();
        open_.push_back(
            std::make_shared<roster_query>(roster_query{std::move(expression), std::move(name), handler, {}, true}));
        unanswered_.push_back(open_.back());
        turn_->schedule();
        return open_.back().get();
    }

    void close(const roster_query *query) {
        const auto found =
            std::find_if(open_.begin(), open_.end(), [&](const auto &one) { return one.get() == query; });
        if (found == open_.end())
            return;
        (*found)->open = false;
        open_.erase(found);
    }

private:
    void prepare() {
        if (turn_)
            return;
        turn_ = std::make_unique<OnceATurn>(
            host_loop(), [this] { evaluate(); }, OnceATurn::Turn::Last);
        Model &model = host_model();
        const Model::WatchId watch = model.watch(devices_path, [this](const Event &event) {
            if (event.steps.size() < device_depth)
                return;
            changed_.insert(event.steps[device_depth - 1]);
            turn_->schedule();
        });
        host_on_detach("device queries", [this, &model, watch] {
            model.unwatch(watch);
            const std::size_t left = open_.size();
            while (!open_.empty())
                close(open_.back().get());
            unanswered_.clear();
            changed_.clear();
            turn_.reset();
            return left;
        });
    }

    /* Handlers open and close queries. */
    void evaluate() {
        const auto changed = std::exchange(changed_, {});
        const auto fresh = std::exchange(unanswered_, {});
        const auto queries = open_;
        for (const auto &query : queries) {
            const bool is_fresh = std::find(fresh.begin(), fresh.end(), query) != fresh.end();
            compare(*query, is_fresh ? all_devices() : changed);
        }
    }

    static std::set<std::string> all_devices() {
        const auto names = host_model().instances(devices_path);
        return {names.begin(), names.end()};
    }

    /* First those that match no more, then those that match now, each in the order of their keys. */
    static void compare(roster_query &query, const std::set<std::string> &keys) {
        for (const bool leaving : {true, false})
            for (const std::string &key : keys) {
                const std::optional<Device> device = device_of(key);
                if (query.open && query.leaves(key, device ? &*device : nullptr) == leaving)
                    query.compare(key, device ? &*device : nullptr);
            }
    }

    /* Those of its parameters that have a value. */
    static std::optional<Device> device_of(const std::string &key) {
        const Node *all = host_model().find(devices_path);
        const Node *node = all ? all->child(key) : nullptr;
        if (!node)
            return std::nullopt;
        Device device;
        std::copy_if(node->parameters.begin(), node->parameters.end(), std::back_inserter(device),
                     [](const Parameter &one) { return one.present; });
        return device;
    }

    std::unique_ptr<OnceATurn> turn_; /* null while nothing was opened since the host was attached */
    std::set<std::string> changed_;   /* devices, since the last look */
    std::vector<std::shared_ptr<roster_query>> open_;
    std::vector<std::shared_ptr<roster_query>> unanswered_; /* of these, those that were told of nothing yet */
};

Roster roster;

} // namespace

extern "C" {

bool roster_initialize(hull_t *, sysbus_t *) {
    return host_attached();
}

roster_query_t *roster_query_open(const char *expression, const char *name, roster_handler_t handler) {
    const std::string subscriber = name ? name : "";
    const std::string text = expression ? expression : "";
    if (!host_attached() || !handler) {
        trace(Level::Error, "roster", "%s: a query needs a handler and an attached host", subscriber.c_str());
        return nullptr;
    }
    Expression parsed;
    std::string error;
    if (!Expression::parse(Expression::Syntax::Device, text, &parsed, &error)) {
        trace(Level::Error, "roster", "%s: malformed expression \"%s\": %s", subscriber.c_str(), text.c_str(),
              error.c_str());
        return nullptr;
    }
    return roster.open(std::move(parsed), subscriber, handler);
}

void roster_query_close(roster_query_t *query) {
    roster.close(query);
}
}

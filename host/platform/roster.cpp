/*
 * The plug-in's view of the LAN's devices: platform/roster.h on "Hosts.Host" of the data model.
 */
#include "platform/roster.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
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

using Device = std::vector<Parameter>; /* those that have a value */

const Parameter *parameter_of(const Device &device, const std::string &name) {
    const auto found =
        std::find_if(device.begin(), device.end(), [&](const Parameter &one) { return one.name == name; });
    return found == device.end() ? nullptr : &*found;
}

std::string text_of(const Device &device, const std::string &name) {
    const Parameter *parameter = parameter_of(device, name);
    return parameter && parameter->type == Type::Text ? std::get<std::string>(parameter->value) : "";
}

bool holds(const Device &device, const Expression::Word &word) {
    if (!word.value)
        return has_word(text_of(device, "Tags"), word.name);
    const Parameter *parameter = parameter_of(device, word.name);
    return parameter && parse_value(parameter->type, *word.value) == parameter->value;
}

bool same(const Device &a, const Device &b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const Parameter &x, const Parameter &y) { return x.name == y.name && x.value == y.value; });
}

/* The device's parameters by their names, and its addresses as a list, since a device may come to have several. */
void to_map(const Device &device, variant_t *map) {
    variant_initialize(map, variant_type_map);
    for (const Parameter &one : device) {
        variant_t value;
        to_variant(one.type, one.value, &value);
        variant_map_add(variant_da_map(map), one.name.c_str(), &value);
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

    void compare(const std::map<std::string, Device> &devices) {
        const auto told = matching; /* the handler may close the query, which must not disturb the walk */
        for (const auto &[key, device] : told) {
            const auto now = devices.find(key);
            if (now != devices.end() && satisfied_by(now->second))
                continue;
            matching.erase(key);
            tell(key, now == devices.end() ? device : now->second, roster_action_unmatch);
            if (!open)
                return;
        }
        for (const auto &[key, device] : devices) {
            if (!satisfied_by(device))
                continue;
            const auto before = told.find(key);
            if (before != told.end() && same(before->second, device))
                continue;
            matching[key] = device;
            tell(key, device, before == told.end() ? roster_action_match : roster_action_change);
            if (!open)
                return;
        }
    }

private:
    bool satisfied_by(const Device &device) const {
        return expression.evaluate([&](const Expression::Word &word) { return holds(device, word); });
    }
};

namespace {

/* All open queries, in the order of their opening. */
class Roster {
public:
    roster_query *open(Expression expression, std::string name, roster_handler_t handler) {
        prepare();
        open_.push_back(
            std::make_shared<roster_query>(roster_query{std::move(expression), std::move(name), handler, {}, true}));
        recheck_->schedule();
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
        if (recheck_)
            return;
        recheck_ = std::make_unique<Recheck>(host_loop(), host_model(), devices_path, [this] { evaluate(); });
        host_on_detach("device queries", [this] {
            const std::size_t left = open_.size();
            while (!open_.empty())
                close(open_.back().get());
            recheck_.reset();
            return left;
        });
    }

    void evaluate() {
        std::map<std::string, Device> devices;
        if (const Node *all = host_model().find(devices_path))
            for (const auto &device : all->children)
                std::copy_if(device->parameters.begin(), device->parameters.end(),
                             std::back_inserter(devices[device->name]),
                             [](const Parameter &one) { return one.present; });
        const auto queries = open_; /* handlers open and close queries */
        for (const auto &query : queries)
            if (query->open)
                query->compare(devices);
    }

    std::unique_ptr<Recheck> recheck_; /* null while nothing was opened since the host was attached */
    std::vector<std::shared_ptr<roster_query>> open_;
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

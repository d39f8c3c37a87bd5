#include "host/platform/hull_object.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string_view>

#include "host/base/trace.h"
#include "host/platform/attachment.h"

using keel::host_model;

object::~object() {
    for (parameter &one : parameters)
        variant_cleanup(&one.value);
}

namespace keel {

namespace {

std::unique_ptr<object> copy_node(const Node &node, std::string path, int depth,
                                  const std::vector<std::string> &names) {
    auto copy = std::make_unique<object>();
    copy->name = node.name;
    copy->path = std::move(path);
    copy->multi = node.multi;
    copy->parameters.reserve(node.parameters.size());
    for (const Parameter &one : node.parameters) {
        if (!one.present)
            continue;
        if (!names.empty() && std::find(names.begin(), names.end(), one.name()) == names.end())
            continue;
        copy->parameters.push_back({one.name(), {}});
        to_variant(one.type(), one.value, &copy->parameters.back().value);
    }
    if (depth != 0)
        for (const Node &child : node.children) {
            copy->children.push_back(copy_node(child, join_path(copy->path, child.name), depth - 1, {}));
            copy->children.back()->parent = copy.get();
            copy->children.back()->place = copy->children.size() - 1;
        }
    return copy;
}

} // namespace

std::unique_ptr<object> snapshot(const Node &node, int depth, const std::vector<std::string> &names) {
    return copy_node(node, node.path(), depth, names);
}

namespace {

/* Objects that the plug-in fetched. A fetch after a change of the object or of what is below it makes a new snapshot;
 * the old one is kept for who still holds it, until the turn is over. What was not fetched again between two sweeps
 * goes, so that the cache does not grow with the objects that come and go. */
class Cache {
public:
    object *fetch(const std::string &path) {
        prepare();
        const Node *node = path.empty() ? nullptr : host_model().find(path);
        Entry &entry = entries_[path];
        if (entry.snapshot && node && entry.generation == node->generation) {
            entry.used = true;
            return entry.snapshot.get();
        }
        if (entry.snapshot)
            retire(std::move(entry.snapshot));
        if (!node) {
            entries_.erase(path);
            return nullptr;
        }
        entry = {snapshot(*node, -1), node->generation, true};
        sweep_later();
        return entry.snapshot.get();
    }

    /* One parameter, without a copy of the whole object. */
    parameter *fetch(const std::string &path, const std::string &name) {
        prepare();
        const Node *node = host_model().find(path);
        const Parameter *one = node ? node->parameter(name) : nullptr;
        if (!one || !one->present)
            return nullptr;
        auto copy = snapshot(*node, 0, {name});
        parameter *found = &copy->parameters.front();
        retire(std::move(copy));
        return found;
    }

    void clear() {
        entries_.clear();
        retired_.clear();
    }

private:
    struct Entry {
        std::unique_ptr<object> snapshot;
        std::uint64_t generation = 0; /* of the subtree */
        bool used = false;            /* since the last sweep */
    };

    void prepare() {
        bus_carry_out_pending();
        if (registered_)
            return;
        registered_ = true;
        host_on_detach("cached objects", [this] {
            clear();
            registered_ = false;
            sweeping_ = false;
            return std::size_t{0};
        });
    }

    void retire(std::unique_ptr<object> old) {
        retired_.push_back(std::move(old));
        sweep_later();
    }

    void sweep_later() {
        if (sweeping_)
            return;
        sweeping_ = true;
        host_loop().post([this] {
            if (!sweeping_) /* cleared by a detach */
                return;
            sweeping_ = false;
            retired_.clear();
            std::erase_if(entries_, [](const auto &entry) { return !entry.second.used; });
            for (auto &[path, entry] : entries_)
                entry.used = false;
        });
    }

    std::map<std::string, Entry> entries_;
    std::vector<std::unique_ptr<object>> retired_;
    bool registered_ = false;
    bool sweeping_ = false; /* a sweep is posted */
};

Cache cache;

object *descendant(object *from, std::string_view path) {
    while (from && !path.empty()) {
        object *best = nullptr;
        for (const auto &child : from->children) {
            const std::string &name = child->name;
            if (path.starts_with(name) && (path.size() == name.size() || path[name.size()] == '.') &&
                (!best || name.size() > best->name.size()))
                best = child.get();
        }
        if (best)
            path.remove_prefix(std::min(path.size(), best->name.size() + 1));
        from = best;
    }
    return from;
}

} // namespace
} // namespace keel

extern "C" {

object_t *hull_client_get_object(sysbus_t *, const char *path) {
    return path ? keel::cache.fetch(path) : nullptr;
}

parameter_t *hull_client_get_parameter(sysbus_t *, const char *path, const char *name) {
    return path && name ? keel::cache.fetch(path, name) : nullptr;
}

const variant_t *hull_client_get(sysbus_t *bus, const char *path, const char *name) {
    return parameter_getValue(hull_client_get_parameter(bus, path, name));
}

const variant_t *parameter_getValue(const parameter_t *parameter) {
    return parameter ? &parameter->value : nullptr;
}

bool hull_client_set_object(sysbus_t *, const char *path, const variant_map_t *map) {
    if (!path || !map)
        return false;
    keel::bus_carry_out_pending();
    keel::Values values;
    for (auto *it = variant_map_first(map); it; it = variant_map_iterator_next(it)) {
        const auto value = keel::from_variant(variant_map_iterator_data(it));
        if (!value) {
            keel::trace(keel::Level::Warning, "bus", "set refused: %s: \"%s\" has no value", path,
                        variant_map_iterator_key(it));
            return false;
        }
        values[variant_map_iterator_key(it)] = *value;
    }
    const keel::Outcome refusal = host_model().set(path, values);
    if (refusal)
        keel::trace(keel::Level::Warning, "bus", "set refused: %s: %s", refusal->path.c_str(), refusal->reason.c_str());
    return !refusal;
}

void hull_cacheClear(hull_t *) {
    keel::cache.clear();
}

object_t *object_getObject(object_t *object, const char *path, uint32_t, bool *) {
    return path && *path ? keel::descendant(object, path) : nullptr;
}

const variant_t *object_parameterValue(const object_t *object, const char *name) {
    if (object && name)
        for (const parameter &one : object->parameters)
            if (one.name == name)
                return &one.value;
    return nullptr;
}

object_t *object_firstInstance(const object_t *object) {
    return object && object->multi && !object->children.empty() ? object->children.front().get() : nullptr;
}

object_t *object_nextInstance(const object_t *instance) {
    if (!instance || !instance->parent)
        return nullptr;
    const auto &all = instance->parent->children;
    return instance->place + 1 < all.size() ? all[instance->place + 1].get() : nullptr;
}

const char *object_name(const object_t *object, uint32_t) {
    return object ? object->name.c_str() : nullptr;
}

char *object_pathChar(const object_t *object, uint32_t) {
    return object ? strdup(object->path.c_str()) : nullptr;
}

bool object_getValues(const object_t *object, variant_map_t *values) {
    if (!object || !variant_map_initialize(values))
        return false;
    return std::all_of(object->parameters.begin(), object->parameters.end(),
                       [&](const parameter &one) { return variant_map_add(values, one.name.c_str(), &one.value); });
}

bool object_delete(object_t *object) {
    if (object)
        object->deleted = true;
    return object != nullptr;
}

bool object_commit(object_t *object) {
    if (!object)
        return false;
    keel::bus_carry_out_pending();
    bool done = true;
    for (const auto &child : object->children) {
        if (!child->deleted)
            continue;
        child->deleted = false;
        const keel::Outcome refusal = host_model().remove(child->path);
        if (refusal)
            keel::trace(keel::Level::Warning, "bus", "delete refused: %s: %s", refusal->path.c_str(),
                        refusal->reason.c_str());
        done = done && !refusal;
    }
    return done;
}
}

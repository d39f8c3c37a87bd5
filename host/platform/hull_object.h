/*
 * Snapshots of objects: what the plug-in holds when it asked for an object.
 */
#ifndef HOST_PLATFORM_HULL_OBJECT_H
#define HOST_PLATFORM_HULL_OBJECT_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "host/model/model.h"
#include "platform/hull.h"

struct parameter {
    std::string name;
    variant_t value;
};

struct object {
    std::string name;
    std::string path;
    object *parent = nullptr;
    std::size_t place = 0; /* among the parent's children */
    bool multi = false;
    bool deleted = false; /* by object_delete(), until the parent is committed */
    std::vector<parameter> parameters;
    std::vector<std::unique_ptr<object>> children;

    object() = default;
    object(const object &) = delete;
    object &operator=(const object &) = delete;
    ~object();
};

namespace keel {

/* A copy of a node and of what is below it down to the depth (-1: all of it). With names given, of those parameters
 * alone in the node itself. */
std::unique_ptr<object> snapshot(const Node &node, int depth, const std::vector<std::string> &names = {});

} // namespace keel

#endif

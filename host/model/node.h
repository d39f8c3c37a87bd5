/*
 * The objects of the data model as a tree of nodes, and the shapes that say what an object of a kind looks like.
 */
#ifndef HOST_MODEL_NODE_H
#define HOST_MODEL_NODE_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/model/value.h"

namespace keel {

constexpr std::size_t max_name = 64; /* characters of a name */

struct ParameterShape {
    std::string name;
    Type type = Type::Text;
    Value initial;
    bool present = true;                 /* false: without a default, and so not there until it is written */
    std::vector<std::string> known = {}; /* the only texts that a person may write; empty: any */
};

/* What an object looks like; made from the model file, and then never changed. */
struct Shape {
    struct Initial {
        std::string name;
        Values values;
        std::map<std::string, std::vector<Initial>> below; /* child object -> its instances */
    };

    std::vector<ParameterShape> parameters;
    std::vector<std::pair<std::string, const Shape *>> objects;
    const Shape *instance = nullptr; /* set: a multi-instance object */
    std::vector<Initial> instances;  /* those it starts with */
    bool persistent = false;
    std::string persistent_once; /* of an instance: the parameter that makes it persistent when it is true */

    const ParameterShape *parameter(std::string_view name) const;
};

struct Parameter {
    const ParameterShape *shape;
    Value value;
    bool present = true; /* false: never written, and without a default */

    const std::string &name() const { return shape->name; }
    Type type() const { return shape->type; }
};

struct Node;

/* What lies below a node, in the order in which it was added; found by name in a time that does not depend on how much
 * there is. */
class Children {
public:
    Children();
    Children(const Children &) = delete;
    Children &operator=(const Children &) = delete;
    ~Children();

    std::list<Node>::const_iterator begin() const { return nodes_.begin(); }
    std::list<Node>::const_iterator end() const { return nodes_.end(); }
    std::size_t size() const { return nodes_.size(); }
    bool empty() const { return nodes_.empty(); }

    /* Null when there is none of that name. */
    Node *find(std::string_view name) const;
    /* The one whose name a path begins with: names may hold dots, and the longest that exists is meant. Null for none.
     */
    Node *first_on(std::string_view path) const;
    /* The lowest number from 1 on that no child has for its name. */
    std::string free_number() const;
    Node &append(std::string name);
    void remove(const Node &child);

private:
    using Position = std::list<Node>::iterator;

    std::list<Node> nodes_;
    std::unique_ptr<std::unordered_map<std::string_view, Position>> index_; /* null while there are few */
    std::size_t with_dots_ = 0;                                             /* in their names */
    mutable std::uint32_t lowest_free_ = 1;                                 /* every number below it is taken */
};

/* One object, read only from outside the model. */
struct Node {
    std::string name;
    Node *parent = nullptr; /* null for the root, whose name is empty */
    const Shape *shape = nullptr;
    bool multi = false;                /* children are instances */
    bool instance = false;             /* parent is multi */
    bool persistent = false;           /* to be stored, with all below it */
    std::uint64_t generation = 0;      /* of the model, when the object or what is below it was last written */
    std::vector<Parameter> parameters; /* in the order of their definition */
    Children children;

    Parameter *parameter(std::string_view parameter_name);
    const Parameter *parameter(std::string_view parameter_name) const;
    const Node *child(std::string_view child_name) const { return children.find(child_name); }
    std::string path() const;
    /* The names along the path. */
    std::vector<std::string> steps() const;
    /* Those that are present. */
    Values values() const;
};

/* The descendant at a relative path, or null; the empty path is the node itself. */
Node *descend(Node *from, std::string_view path);

/* Makes a node what its shape says, with the objects and instances that stand below it from the start, all of them of
 * that generation. */
void grow(Node &node, const Shape &shape, std::uint64_t generation);
/* After a write: an instance whose parameter now makes it persistent is so from now on, with all below it. */
void follow_persistence(Node &node);
/* Adds an instance of a multi-instance object, grown. */
Node &grow_instance(Node &multi, std::string name, std::uint64_t generation);

/* "a.b" and "c" are "a.b.c"; the empty path joins nothing. */
std::string join_path(const std::string &path, std::string_view name);

} // namespace keel

#endif

/*
 * The data model: one tree of objects, the only place where the host's components meet. Each of them reads it, writes
 * it and watches it; none calls another.
 *
 * An object has typed parameters and child objects. A multi-instance object has instances instead, all of one shape,
 * each named by a key (given by who adds it) or by a number (the next free one). Names are joined by "." into paths; an
 * instance's name may itself hold dots ("Weft.Intf.eth1.20"): the longest existing instance name is meant.
 *
 * A write is refused whole or done whole. What it did is told to the watchers on a later turn of the loop, in the order
 * of the writes, one event per write and object.
 */
#ifndef HOST_MODEL_MODEL_H
#define HOST_MODEL_MODEL_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "host/base/loop.h"

namespace keel {

enum class Type { Text, Bool, Int32, UInt8, UInt16, UInt32, UInt64 };

/* Integers of every width are held in 64 bits; the parameter's type bounds them. */
using Value = std::variant<std::string, bool, std::int64_t>;
using Values = std::map<std::string, Value>;

/* Text as is, "true"/"false", decimal. */
std::string to_text(const Value &value);
/* What a person typed, as a value of that type; nothing when it is none. */
std::optional<Value> parse_value(Type type, std::string_view text);
const char *type_name(Type type);

struct Parameter {
    std::string name;
    Type type;
    Value value;
    bool present = true; /* false: never written, and without a default */
};

struct Shape; /* model.cpp: what an object of this kind looks like */

/* One object, read only from outside the model. */
struct Node {
    std::string name;
    Node *parent = nullptr; /* null for the root, whose name is empty */
    const Shape *shape = nullptr;
    bool multi = false;                          /* children are instances */
    bool instance = false;                       /* parent is multi */
    bool persistent = false;                     /* to be stored, with all below it */
    std::vector<Parameter> parameters;           /* in the order of their definition */
    std::vector<std::unique_ptr<Node>> children; /* instances in the order in which they were added */

    const Parameter *parameter(std::string_view parameter_name) const;
    const Node *child(std::string_view child_name) const;
    std::string path() const;
};

struct Event {
    enum class Kind {
        Added,   /* an instance; values: all its parameters */
        Deleted, /* an instance; values: its last parameters; instances below it are told before it */
        Changed, /* values: the new values of what changed, before: the old ones */
        Custom   /* values: whatever the type carries */
    };
    Kind kind;
    std::vector<std::string> steps; /* the names along the path */
    Values values;
    Values before;
    std::uint32_t custom_type = 0;
    std::uint64_t number = 0; /* counts all events of the model, from 1 */

    std::string path() const;
};

/* Why a write was not done. */
struct Refusal {
    std::string path;
    std::string reason;
};
using Outcome = std::optional<Refusal>; /* nothing: done */

/* A data-model file that cannot be used: what() names file, path and reason. */
class ModelError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Model {
public:
    using Watcher = std::function<void(const Event &)>;
    using WatchId = std::uint64_t;

    explicit Model(Loop &loop);
    Model(const Model &) = delete;
    Model &operator=(const Model &) = delete;
    ~Model();

    /* Reads the tree from a JSON file (docs/data-model.md tells its form). Meant for an empty model; throws ModelError.
     */
    void load_file(const std::string &file);
    void load_text(std::string_view json, const std::string &file);

    /* Reads. The pointer stays valid until the next write. The empty path is the root. */
    const Node *find(std::string_view path) const;
    std::optional<Value> get(std::string_view path, std::string_view parameter) const;
    /* The value, or the fallback when there is none. */
    std::string text(std::string_view path, std::string_view parameter, std::string_view fallback = "") const;
    bool boolean(std::string_view path, std::string_view parameter, bool fallback = false) const;
    std::int64_t integer(std::string_view path, std::string_view parameter, std::int64_t fallback = 0) const;
    std::vector<std::string> instances(std::string_view path) const;
    /* The parameters that an instance below this object has, with their defaults; empty when it has no instances. */
    std::vector<Parameter> instance_parameters(std::string_view path) const;

    /* Writes. A set with values that are already in force changes nothing and tells nothing. */
    Outcome set(std::string_view path, const Values &values);
    /* Adds an instance; without a key the model names it by the next free number. The name goes to *name. */
    Outcome add(std::string_view parent, const std::optional<std::string> &key, const Values &values,
                std::string *name = nullptr);
    Outcome remove(std::string_view path);

    /* Tells the watchers a custom notification of an object, in order with the writes. */
    void notify(std::string_view path, std::uint32_t type, Values values);

    /* Calls the watcher for every event at or below the path ("" for all). The path need not exist. */
    WatchId watch(std::string_view path, Watcher watcher);
    void unwatch(WatchId id);

    /* Tells the watchers now what has happened up to now; for who cannot wait for the next turn. Not from a watcher. */
    void dispatch_now();

    /* Counts the writes done; for caches. */
    std::uint64_t generation() const { return generation_; }
    /* The number of the latest event: what has a higher one happened after this call. */
    std::uint64_t latest_event() const { return last_event_; }

private:
    struct Watch {
        WatchId id;
        std::string path;
        Watcher watcher;
    };

    void tell(Event event);

    Loop &loop_;
    std::unique_ptr<Node> root_;
    std::vector<std::unique_ptr<Shape>> shapes_;
    std::deque<Event> events_;
    std::vector<std::shared_ptr<Watch>> watches_;
    std::shared_ptr<bool> alive_; /* false once the model is gone: tasks still posted then do nothing */
    WatchId last_watch_ = 0;
    std::uint64_t last_event_ = 0;
    std::uint64_t generation_ = 0;
    bool dispatch_posted_ = false;
};

/* A text of blank-separated words used as a set (flags, links): whether it has the word, and with or without it. */
bool has_word(std::string_view words, std::string_view word);
std::string with_word(std::string_view words, std::string_view word);
std::string without_word(std::string_view words, std::string_view word);
std::vector<std::string> split_words(std::string_view words);

} // namespace keel

#endif

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
 *
 * What a read, a write or an event costs depends on the object and on who watches it, not on how much else there is.
 */
#ifndef HOST_MODEL_MODEL_H
#define HOST_MODEL_MODEL_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/loop.h"
#include "host/model/model_file.h"
#include "host/model/node.h"
#include "host/model/watches.h"
#include "host/model/words.h"

namespace keel {

/* Why a write was not done. */
struct Refusal {
    std::string path;
    std::string reason;
};
using Outcome = std::optional<Refusal>; /* nothing: done */

class Model {
public:
    using Watcher = Watches::Watcher;
    using WatchId = Watches::Id;
    using Observer = std::function<void(const Event &)>;

    explicit Model(Loop &loop);
    Model(const Model &) = delete;
    Model &operator=(const Model &) = delete;
    ~Model();

    /* Reads the tree from a JSON file (docs/data-model.md tells its form). Meant for an empty model; throws ModelError.
     */
    void load_file(const std::string &file);
    void load_text(std::string_view json, const std::string &file);
    /* The tree of a file that was read before, by read_shapes(), and stays with its reader: for who makes many models.
     */
    void load_shape(const Shape &root);

    /* Reads. The pointer stays valid until the object is deleted. The empty path is the root. */
    const Node *find(std::string_view path) const;
    std::optional<Value> get(std::string_view path, std::string_view parameter) const;
    /* The value, or the fallback when there is none. */
    std::string text(std::string_view path, std::string_view parameter, std::string_view fallback = "") const;
    bool boolean(std::string_view path, std::string_view parameter, bool fallback = false) const;
    std::int64_t integer(std::string_view path, std::string_view parameter, std::int64_t fallback = 0) const;
    std::vector<std::string> instances(std::string_view path) const;
    /* The parameters that an instance below this object has; empty when it has no instances. */
    std::vector<ParameterShape> instance_parameters(std::string_view path) const;

    /* Writes. A set with values that are already in force changes nothing and tells nothing. */
    Outcome set(std::string_view path, const Values &values);
    /* Adds an instance; without a key the model names it by the next free number. The name goes to *name. */
    Outcome add(std::string_view parent, const std::optional<std::string> &key, const Values &values,
                std::string *name = nullptr);
    Outcome remove(std::string_view path);

    /* Tells the watchers a custom notification of an object, in order with the writes. */
    void notify(std::string_view path, std::uint32_t type, Values values);

    /* Calls the watcher for every event at or below the path ("" for all) that concerns it. The path need not exist. */
    WatchId watch(std::string_view path, Watcher watcher, Concern concern = {});
    void unwatch(WatchId id);

    /* Tells the watchers now what has happened up to now; for who cannot wait for the next turn. Not from a watcher. */
    void dispatch_now();

    /* Calls the observer inside every write, once it is done, for what must never lag behind the model: indexes. It
     * must not write. One for each key (the observer's address, say); null ends it. */
    void observe(const void *key, Observer observer);

    /* Counts the writes done; for caches. */
    std::uint64_t generation() const { return generation_; }
    /* The number of the latest event: what has a higher one happened after this call. */
    std::uint64_t latest_event() const { return last_event_; }

private:
    void written(Node &node);
    void tell(Event event);

    Loop &loop_;
    std::unique_ptr<Node> root_;
    Shapes shapes_;
    std::deque<Event> events_;
    Watches watches_;
    std::map<const void *, Observer> observers_;
    std::shared_ptr<bool> alive_; /* false once the model is gone: tasks still posted then do nothing */
    std::uint64_t last_event_ = 0;
    std::uint64_t generation_ = 0;
    bool dispatch_posted_ = false;
};

} // namespace keel

#endif

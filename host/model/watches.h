/*
 * Who is told of what: events of the data model, and the watches on it by path.
 */
#ifndef HOST_MODEL_WATCHES_H
#define HOST_MODEL_WATCHES_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/model/value.h"

namespace keel {

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
    bool persistent = false;  /* the object was one that is stored */

    std::string path() const;
};

/* What a watcher wants to be told of besides its path. */
struct Concern {
    /* Of changes those in which one of these is among the values; all when there are none. */
    std::vector<std::string> parameters;
    /* Also the addition of an instance in which the path lies, as far as its text tells: with it, the path's object may
     * have appeared. */
    bool appearance = false;
};

class Watches {
public:
    using Watcher = std::function<void(const Event &)>;
    using Id = std::uint64_t; /* never 0 */

    Id add(std::string_view path, Watcher watcher, Concern concern);
    /* Allowed inside a watcher: one that is removed is not called any more. An unknown id is ignored. */
    void remove(Id id);
    /* Calls those whom the event concerns, in the order in which they came. */
    void tell(const Event &event) const;

private:
    struct Watch {
        Id id;
        std::string path;
        Watcher watcher; /* null once it is removed */
        Concern concern;
    };
    using WatchRef = std::shared_ptr<Watch>;

    std::vector<WatchRef> concerned_by(const Event &event) const;

    std::unordered_map<std::string, std::vector<WatchRef>> by_path_;
    std::map<std::string, std::vector<WatchRef>> appearing_; /* those who want to know of an appearance, by path */
    std::unordered_map<Id, WatchRef> by_id_;
    Id last_ = 0;
};

} // namespace keel

#endif

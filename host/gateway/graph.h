/*
 * The graph of interfaces: "Weft.Intf.*" of the data model with their "Flags", and, in "LowerLayers", the links to what
 * lies below, in the order in which they were made. It is an index kept up by the model's writes, so it always says
 * what the model says; what a question costs depends on what it reaches, not on how many interfaces there are.
 */
#ifndef HOST_GATEWAY_GRAPH_H
#define HOST_GATEWAY_GRAPH_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/model/expression.h"
#include "host/model/model.h"
#include "host/model/recheck.h"

namespace keel {

enum class Traversal { This, Down, DownExclusive, Up, OneLevelDown, OneLevelUp, All };

/* The traversal of that text (platform/weft.h), or nothing. */
std::optional<Traversal> parse_traversal(std::string_view text);

constexpr const char *interfaces_path = "Weft.Intf";
std::string interface_path(std::string_view name);

class InterfaceGraph {
public:
    /* The model must be loaded, and outlive the graph. */
    explicit InterfaceGraph(Model &model);
    InterfaceGraph(const InterfaceGraph &) = delete;
    InterfaceGraph &operator=(const InterfaceGraph &) = delete;
    ~InterfaceGraph();

    Model &model() const { return model_; }

    bool exists(const std::string &name) const;
    bool has_flag(const std::string &name, std::string_view flag) const;
    /* Those that carry the flag, in the order of the model. */
    std::vector<std::string> with_flag(const std::string &flag) const;

    /* The interfaces reached that satisfy the condition, breadth first, links in their order, each once; empty when
     * there is no such start. Links to interfaces that do not exist lead nowhere. The names of all that was looked at
     * on the way, existing or not, satisfying or not, go to *looked_at: as long as none of them changes, neither does
     * the answer. With the traversal All, that is every interface, and *looked_at has "" alone. */
    std::vector<std::string> reach(const std::string &start, Traversal traversal, const Expression &condition = {},
                                   std::set<std::string> *looked_at = nullptr) const;
    /* Those that link to that name, whether or not there is such an interface. */
    std::vector<std::string> linked_over(const std::string &name) const;
    /* Whether a link of the upper interface over the lower one would close a loop. */
    bool would_loop(const std::string &upper, const std::string &lower) const;
    /* The first network device at or below an interface, "" for none. */
    std::string netdev_below(const std::string &name) const;
    /* The first one that is up: what a WAN client of the interface uses. */
    std::string live_netdev_below(const std::string &name) const;
    /* The paths of the address instances that a network device holds: its own, and the leases of the DHCP interfaces
     * whose first device that is up it is, or, where none is, whose first device. */
    std::vector<std::string> addresses(const std::string &device) const;

    /* Writes: adds or takes away a flag; nothing when that is how it stands. */
    Outcome set_flag(const std::string &name, const std::string &flag, bool wanted);

private:
    /* One interface, or a name that others link to. */
    struct Entry {
        std::string name;
        std::uint64_t order = 0; /* 0: there is no such interface */
        std::vector<std::string> flags;
        std::vector<Entry *> lower;             /* in the order of the links, also of names without interface */
        std::map<std::uint64_t, Entry *> upper; /* by their order */

        bool carries(std::string_view flag) const;
    };

    static const Entry *first_netdev(const std::vector<const Entry *> &order, bool live);

    Entry &entry(const std::string &name);
    const Entry *find(const std::string &name) const; /* null when there is no such interface */
    void observe(const Event &event);
    void add(const std::string &name, const std::string &flags, const std::string &links);
    void remove(const std::string &name);
    void set_flags(Entry &of, const std::string &flags);
    void set_links(Entry &of, const std::string &links);
    void forget_if_unused(Entry &one);
    std::vector<const Entry *> reached(const Entry &start, Traversal traversal, std::set<std::string> *looked_at) const;
    static std::vector<const Entry *> closure(const Entry &start, bool down, std::set<std::string> *looked_at);

    Model &model_;
    std::unordered_map<std::string, Entry> entries_; /* by name; addresses of entries stay */
    std::map<std::uint64_t, Entry *> in_order_;      /* those that exist */
    std::unordered_map<std::string, std::map<std::uint64_t, Entry *>> by_flag_;
    std::uint64_t last_order_ = 0;
};

/* Looking again after the graph has changed: flags, links, "Enable", fixed address, address instances, or which
 * interfaces there are. */
class GraphWatch {
public:
    using Names = std::set<std::string>;
    using Check = std::function<void(const Names &touched)>;

    /* Calls check on a later turn than every change, once for all changes of a turn, with the interfaces touched: those
     * that changed themselves and those at the other end of links made or taken. check may destroy the watch. */
    GraphWatch(Loop &loop, InterfaceGraph &graph, Check check);
    GraphWatch(const GraphWatch &) = delete;
    GraphWatch &operator=(const GraphWatch &) = delete;
    ~GraphWatch();

    /* Has check called for these without a change. */
    void schedule(const Names &names = {});

private:
    void on_event(const Event &event);

    Model &model_;
    Names touched_;
    OnceATurn turn_;
    Model::WatchId watch_;
};

/* With what can be reached from these upwards and downwards, and with all devices that a DHCP interface reached so may
 * use: the interfaces whose derived state may have changed. A name may be that of an interface that is gone. */
GraphWatch::Names with_stack(const InterfaceGraph &graph, const GraphWatch::Names &names);

} // namespace keel

#endif

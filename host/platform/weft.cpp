/*
 * The plug-in's view of the interface graph: platform/weft.h on the data model.
 */
#include "platform/weft.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/base/trace.h"
#include "host/gateway/classless_routes.h"
#include "host/gateway/graph.h"
#include "host/gateway/interface_state.h"
#include "host/gateway/wan_lease.h"
#include "host/model/recheck.h"
#include "host/platform/attachment.h"
#include "host/platform/dhcp_option.h"

using namespace keel;

struct weft_query {
    enum class Result { Interfaces, Interface, Address, Up };

    Result kind;
    std::string start;
    Traversal traversal;
    Expression condition;
    weft_handler_t handler;
    void *data;
    std::uint64_t number = 0; /* counts the queries opened */
    bool told = false;
    std::vector<std::string> latest;   /* names, one name or address, or "up" */
    std::set<std::string> looked_at;   /* the names on which the latest result depends; "" for all */
    std::unique_ptr<OnceATurn> turn{}; /* to be evaluated */
};

namespace {

std::string text_of(const char *text) {
    return text ? text : "";
}

struct Search {
    Traversal traversal;
    Expression condition;
};

/* Nothing for a malformed condition or an unknown traversal, which is traced. */
std::optional<Search> parse_search(const char *condition, weft_traverse_t traversal) {
    const auto way = parse_traversal(text_of(traversal));
    if (!way) {
        trace(Level::Error, "weft", "unknown traversal \"%s\"", text_of(traversal).c_str());
        return std::nullopt;
    }
    Search search{*way, {}};
    std::string error;
    if (!Expression::parse(Expression::Syntax::Flags, text_of(condition), &search.condition, &error)) {
        trace(Level::Error, "weft", "malformed flag expression \"%s\": %s", text_of(condition).c_str(), error.c_str());
        return std::nullopt;
    }
    return search;
}

/* The interfaces that a call reaches; everything that was pushed before it is in force then. */
std::vector<std::string> reached(const char *intf, const char *condition, weft_traverse_t traversal) {
    bus_carry_out_pending();
    const auto search = parse_search(condition, traversal);
    if (!intf || !search)
        return {};
    return host_graph().reach(intf, search->traversal, search->condition);
}

void report(const Outcome &outcome) {
    if (outcome)
        trace(Level::Warning, "weft", "write refused: %s: %s", outcome->path.c_str(), outcome->reason.c_str());
}

void write(const std::string &path, const Values &values) {
    report(host_model().set(path, values));
}

/* Whether a call that writes names an interface; if not, says what is not done. */
bool known_interface(const char *name, const char *call) {
    if (name && host_graph().exists(name))
        return true;
    trace(Level::Warning, "weft", "%s: no interface \"%s\"", call, text_of(name).c_str());
    return false;
}

/* All open queries. One is evaluated again when something that its result depends on has changed. */
class Queries {
public:
    /* Until as many cleanups as initialisations were made. */
    void initialize() {
        if (users_++ == 0)
            prepare();
    }

    void cleanup() {
        if (users_ == 0 || --users_ > 0)
            return;
        if (const std::size_t left = close_all())
            trace(Level::Warning, "weft", "the last client left %zu queries open", left);
    }

    weft_query *open(weft_query::Result kind, const char *intf, const char *subscriber, const char *flags,
                     weft_traverse_t traversal, weft_handler_t handler, void *data) {
        if (users_ == 0 || !intf || !handler) {
            trace(Level::Error, "weft", "%s: a query needs an initialised client, an interface and a handler",
                  text_of(subscriber).c_str());
            return nullptr;
        }
        auto search = parse_search(flags, traversal);
        if (!search)
            return nullptr;
        const auto query = std::make_shared<weft_query>(weft_query{
            kind, intf, search->traversal, std::move(search->condition), handler, data, ++opened_, false, {}, {}});
        query->turn = std::make_unique<OnceATurn>(
            host_loop(),
            [this, number = query->number] {
                const auto held = open_.at(number); /* its handler may close it */
                tell(*held);
            },
            OnceATurn::Turn::Last);
        open_[query->number] = query;
        query->turn->schedule();
        return query.get();
    }

    void close(const weft_query *query) {
        const auto found =
            std::find_if(open_.begin(), open_.end(), [&](const auto &one) { return one.second.get() == query; });
        if (found == open_.end())
            return;
        depend_on(*found->second, {});
        open_.erase(found);
    }

private:
    std::size_t close_all() {
        const std::size_t left = open_.size();
        while (!open_.empty())
            close(open_.begin()->second.get());
        return left;
    }

    void prepare() {
        if (graph_watch_)
            return;
        Model &model = host_model();
        graph_watch_ = std::make_unique<GraphWatch>(host_loop(), host_graph(),
                                                    [this](const GraphWatch::Names &touched) { evaluate(touched); });
        const Model::WatchId deletions = model.watch(interfaces_path, [](const Event &event) {
            if (event.kind == Event::Kind::Deleted && event.steps.size() == 3)
                drop_links(event.steps.back());
        });
        host_on_detach("interface queries", [this, &model, deletions] {
            model.unwatch(deletions);
            graph_watch_.reset();
            users_ = 0;
            return close_all();
        });
    }

    /* A deleted interface takes the links over it along; otherwise they would pile up. */
    static void drop_links(const std::string &gone) {
        if (host_graph().exists(gone))
            return; /* it is back already, and so may be its links */
        for (const std::string &name : host_graph().linked_over(gone))
            write(interface_path(name),
                  {{"LowerLayers", without_word(host_model().text(interface_path(name), "LowerLayers"), gone)}});
    }

    /* In the order of their opening. */
    void evaluate(const GraphWatch::Names &touched) {
        std::set<std::uint64_t> numbers;
        const auto take = [&](const std::string &name) {
            if (const auto found = dependent_.find(name); found != dependent_.end())
                numbers.insert(found->second.begin(), found->second.end());
        };
        std::for_each(touched.begin(), touched.end(), take);
        take("");
        for (const std::uint64_t number : numbers)
            open_.at(number)->turn->schedule();
    }

    void depend_on(weft_query &query, std::set<std::string> names) {
        for (const std::string &name : query.looked_at) {
            const auto found = dependent_.find(name);
            found->second.erase(query.number);
            if (found->second.empty())
                dependent_.erase(found);
        }
        query.looked_at = std::move(names);
        for (const std::string &name : query.looked_at)
            dependent_[name].insert(query.number);
    }

    void tell(weft_query &query) {
        std::set<std::string> looked_at;
        std::vector<std::string> current = result_of(query, &looked_at);
        if (looked_at != query.looked_at)
            depend_on(query, std::move(looked_at));
        if (query.told && current == query.latest)
            return;
        query.told = true;
        query.latest = std::move(current);
        variant_t result{};
        if (query.kind == weft_query::Result::Interfaces) {
            variant_initialize(&result, variant_type_list);
            for (const std::string &name : query.latest)
                variant_list_addChar(variant_da_list(&result), name.c_str());
        } else if (query.kind == weft_query::Result::Up) {
            variant_setBool(&result, !query.latest.empty());
        } else {
            variant_setChar(&result, query.latest.empty() ? "" : query.latest.front().c_str());
        }
        query.handler(&result, query.data);
        variant_cleanup(&result);
    }

    static std::vector<std::string> result_of(const weft_query &query, std::set<std::string> *looked_at) {
        std::vector<std::string> names = host_graph().reach(query.start, query.traversal, query.condition, looked_at);
        switch (query.kind) {
        case weft_query::Result::Interface:
            names.resize(std::min<std::size_t>(names.size(), 1));
            return names;
        case weft_query::Result::Address:
            for (const std::string &name : names)
                if (const std::string address = first_address(name); !address.empty())
                    return {address};
            return {};
        case weft_query::Result::Up:
            if (std::any_of(names.begin(), names.end(),
                            [](const std::string &name) { return host_graph().has_flag(name, "up"); }))
                return {"up"};
            return {};
        default:
            return names;
        }
    }

    static std::string first_address(const std::string &name) {
        const std::string addresses = interface_path(name) + ".IPv4Addr";
        for (const std::string &instance : host_model().instances(addresses)) {
            const std::string path = join_path(addresses, instance);
            std::string address = host_model().text(path, "Address");
            if (!address.empty() && host_model().boolean(path, "Enable"))
                return address;
        }
        return "";
    }

    unsigned users_ = 0;
    std::uint64_t opened_ = 0;
    std::unique_ptr<GraphWatch> graph_watch_; /* null until the first initialisation since the host was attached */
    std::map<std::uint64_t, std::shared_ptr<weft_query>> open_;          /* by number */
    std::unordered_map<std::string, std::set<std::uint64_t>> dependent_; /* name -> queries that looked at it */
};

Queries queries;

/* The object and parameter that a parameter text names, which may be a path below the interface. */
void write_parameter(const std::string &name, const std::string &parameter, const variant_t *variant) {
    const auto value = from_variant(variant);
    const auto dot = parameter.rfind('.');
    std::string object = interface_path(name);
    if (dot != std::string::npos) {
        object.append(".").append(parameter, 0, dot);
        provide_fixed_address(host_model(), name); /* it may be that one's; a refusal is told elsewhere */
    }
    if (!value)
        report(Refusal{object, "\"" + parameter + "\" has no value"});
    else if (dot != std::string::npos && !host_model().find(object))
        trace(Level::Info, "weft", "set parameter: %s has no \"%s\"", name.c_str(), parameter.c_str());
    else
        write(object, {{parameter.substr(dot == std::string::npos ? 0 : dot + 1), *value}});
}

void change_flags(const char *call, const char *intf, const char *flags, const char *condition,
                  weft_traverse_t traversal, bool wanted) {
    const auto names = reached(intf, condition, traversal);
    if (!known_interface(intf, call))
        return;
    for (const std::string &name : names) {
        std::string words = host_model().text(interface_path(name), "Flags");
        for (const std::string &flag : split_words(text_of(flags)))
            words = wanted ? with_word(words, flag) : without_word(words, flag);
        write(interface_path(name), {{"Flags", words}});
    }
}

void write_parameters(const char *call, const std::vector<std::string> &names, const char *intf, const char *parameter,
                      const variant_t *value) {
    if (!known_interface(intf, call))
        return;
    for (const std::string &name : names)
        write_parameter(name, text_of(parameter), value);
}

/* The parameters of an object as a map. */
void to_map(const Node &node, variant_map_t *values) {
    variant_map_initialize(values);
    for (const Parameter &one : node.parameters) {
        if (!one.present)
            continue;
        variant_t value;
        to_variant(one.type(), one.value, &value);
        variant_map_add(values, one.name().c_str(), &value);
        variant_cleanup(&value);
    }
}

/* Writes a MIB of an interface, which gets it if it had none. All of the values or nothing. */
void write_mib(const std::string &parent, const std::string &name, const variant_map_t *entries) {
    const std::string path = join_path(parent, name);
    Values values;
    for (auto *it = variant_map_first(entries); it; it = variant_map_iterator_next(it)) {
        const std::string key = variant_map_iterator_key(it);
        const auto value = from_variant(variant_map_iterator_data(it));
        if (!value) {
            report(Refusal{path, key + " has no value"});
            return;
        }
        values[key] = *value;
    }
    const Node *mibs = host_model().find(parent);
    report(mibs && mibs->child(name) ? host_model().set(path, values) : host_model().add(parent, name, values));
}

} // namespace

extern "C" {

bool weft_client_initialize(hull_t *hull, sysbus_t *) {
    if (!hull || !host_attached())
        return false;
    queries.initialize();
    return true;
}

void weft_client_cleanup() {
    queries.cleanup();
}

/* ---------------------------------------------------------------------------------------------------- queries */

weft_query_t *weft_openQuery_getIntfs(const char *intf, const char *subscriber, const char *flags,
                                      weft_traverse_t traversal, weft_handler_t handler, void *userData) {
    return queries.open(weft_query::Result::Interfaces, intf, subscriber, flags, traversal, handler, userData);
}

weft_query_t *weft_openQuery_luckyIntf(const char *intf, const char *subscriber, const char *flags,
                                       weft_traverse_t traversal, weft_handler_t handler, void *userData) {
    return queries.open(weft_query::Result::Interface, intf, subscriber, flags, traversal, handler, userData);
}

weft_query_t *weft_openQuery_luckyAddrAddress(const char *intf, const char *subscriber, const char *family,
                                              weft_traverse_t traversal, weft_handler_t handler, void *userData) {
    if (text_of(family) != "ipv4") {
        trace(Level::Error, "weft", "%s: no addresses of family \"%s\"", text_of(subscriber).c_str(),
              text_of(family).c_str());
        return nullptr;
    }
    return queries.open(weft_query::Result::Address, intf, subscriber, nullptr, traversal, handler, userData);
}

weft_query_t *weft_openQuery_isUp(const char *intf, const char *subscriber, const char *flags,
                                  weft_traverse_t traversal, weft_handler_t handler, void *userData) {
    return queries.open(weft_query::Result::Up, intf, subscriber, flags, traversal, handler, userData);
}

void weft_closeQuery(weft_query_t *query) {
    queries.close(query);
}

/* ------------------------------------------------------------------------------------------ synchronous calls */

char *weft_luckyIntf(const char *intf, const char *flags, weft_traverse_t traversal) {
    const auto names = reached(intf, flags, traversal);
    return names.empty() ? nullptr : strdup(names.front().c_str());
}

bool weft_hasFlag(const char *intf, const char *flag, const char *condition, weft_traverse_t traversal) {
    const auto flags = split_words(text_of(flag));
    const auto names = reached(intf, condition, traversal);
    return std::any_of(names.begin(), names.end(), [&](const std::string &name) {
        return std::all_of(flags.begin(), flags.end(),
                           [&](const std::string &one) { return host_graph().has_flag(name, one); });
    });
}

void weft_setFlag(const char *intf, const char *flags, const char *condition, weft_traverse_t traversal) {
    change_flags("set flags", intf, flags, condition, traversal, true);
}

void weft_clearFlag(const char *intf, const char *flags, const char *condition, weft_traverse_t traversal) {
    change_flags("clear flags", intf, flags, condition, traversal, false);
}

void weft_setFirstParameter(const char *intf, const char *parameter, const variant_t *value, const char *condition,
                            weft_traverse_t traversal) {
    auto names = reached(intf, condition, traversal);
    names.resize(std::min<std::size_t>(names.size(), 1));
    write_parameters("set parameter", names, intf, parameter, value);
}

void weft_setParameters(const char *intf, const char *parameter, const variant_t *value, const char *condition,
                        weft_traverse_t traversal) {
    write_parameters("set parameters", reached(intf, condition, traversal), intf, parameter, value);
}

void weft_linkIntfs(const char *upper, const char *lower) {
    bus_carry_out_pending();
    if (!known_interface(upper, "link") || !known_interface(lower, "link"))
        return;
    if (host_graph().would_loop(upper, lower)) {
        trace(Level::Warning, "weft", "link %s over %s: that would close a loop", upper, lower);
        return;
    }
    const std::string links = host_model().text(interface_path(upper), "LowerLayers");
    write(interface_path(upper), {{"LowerLayers", with_word(links, lower)}});
}

void weft_unlinkIntfs(const char *upper, const char *lower) {
    bus_carry_out_pending();
    if (!known_interface(upper, "unlink") || !known_interface(lower, "unlink"))
        return;
    const std::string links = host_model().text(interface_path(upper), "LowerLayers");
    write(interface_path(upper), {{"LowerLayers", without_word(links, lower)}});
}

variant_map_t *weft_getMIBs(const char *intf, const char *mibs, const char *condition, weft_traverse_t traversal) {
    const auto names = reached(intf, condition, traversal);
    if (!intf || !host_graph().exists(intf))
        return nullptr;
    auto *all = static_cast<variant_map_t *>(std::calloc(1, sizeof(variant_map_t)));
    variant_map_initialize(all);
    for (const std::string &mib : split_words(text_of(mibs))) {
        variant_map_t by_interface;
        variant_map_initialize(&by_interface);
        for (const std::string &name : names) {
            const Node *node = host_model().find(interface_path(name) + ".MIB");
            node = node ? node->child(mib) : nullptr;
            if (!node)
                continue;
            variant_map_t values;
            to_map(*node, &values);
            variant_map_addMapCopy(&by_interface, name.c_str(), &values);
            variant_map_cleanup(&values);
        }
        if (variant_map_first(&by_interface))
            variant_map_addMapCopy(all, mib.c_str(), &by_interface);
        variant_map_cleanup(&by_interface);
    }
    return all;
}

void weft_setMIBs(const char *intf, const variant_map_t *map) {
    bus_carry_out_pending();
    if (!known_interface(intf, "set MIBs"))
        return;
    for (auto *mib = variant_map_first(map); mib; mib = variant_map_iterator_next(mib)) {
        const variant_map_iterator_t *own = variant_map_find(variant_da_map(variant_map_iterator_data(mib)), intf);
        if (own)
            write_mib(interface_path(intf) + ".MIB", variant_map_iterator_key(mib),
                      variant_da_map(variant_map_iterator_data(own)));
    }
}

variant_t *weft_getDHCPOption(const char *intf, const char *kind, uint16_t option, weft_traverse_t traversal) {
    if (text_of(kind) != "req")
        return nullptr;
    for (const std::string &name : reached(intf, nullptr, traversal)) {
        const std::string path = interface_path(name) + ".ReqOption." + std::to_string(option);
        const std::string value = host_model().text(path, "Value");
        const bool no_routes = option == option_classless_routes && value.empty() &&
                               holds_lease(host_model().text(interface_path(name), "DHCPStatus"));
        if (value.empty() && !no_routes)
            continue;
        auto *parsed = static_cast<variant_t *>(std::calloc(1, sizeof(variant_t)));
        if (no_routes) {
            variant_initialize(parsed, variant_type_list);
            return parsed;
        }
        std::string error;
        if (parse_dhcp_option(option, value, parsed, &error))
            return parsed;
        variant_cleanup(parsed);
        std::free(parsed);
        trace(Level::Warning, "weft", "%s: option %u cannot be used: %s", name.c_str(), static_cast<unsigned>(option),
              error.c_str());
        return nullptr;
    }
    return nullptr;
}
}

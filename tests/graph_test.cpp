/*
 * The graph of interfaces beside a plain reading of the model's texts, over random changes; and what follows it.
 */
#include "host/gateway/graph.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "host/base/process_runner.h"
#include "host/base/trace.h"
#include "host/gateway/interface_state.h"
#include "host/gateway/wan_client_model.h"
#include "host/platform/plugin.h"
#include "host/sim/sim_loop.h"
#include "platform/rig.h"
#include "platform/weft.h"

namespace keel {

namespace {

using Names = std::vector<std::string>;

class NoPrograms : public ProcessRunner {
public:
    bool run(const std::vector<std::string> &, OnExit) override { return false; }
};

/* As anybody would read it: texts, walked anew each time. */
class PlainReading {
public:
    explicit PlainReading(const Model &model) : model_(model) {}

    Names all() const { return model_.instances("Weft.Intf"); }
    bool exists(const std::string &name) const { return model_.find(interface_path(name)) != nullptr; }
    bool has_flag(const std::string &name, const std::string &flag) const {
        return has_word(model_.text(interface_path(name), "Flags"), flag);
    }
    Names lower(const std::string &name) const {
        Names names;
        for (const std::string &one : split_words(model_.text(interface_path(name), "LowerLayers")))
            if (exists(one))
                names.push_back(one);
        return names;
    }
    Names upper(const std::string &name) const {
        Names names;
        for (const std::string &one : all())
            if (has_word(model_.text(interface_path(one), "LowerLayers"), name))
                names.push_back(one);
        return names;
    }
    Names closure(const std::string &start, bool down) const {
        Names order{start};
        for (std::size_t at = 0; at < order.size(); ++at)
            for (const std::string &next : down ? lower(order[at]) : upper(order[at]))
                if (std::find(order.begin(), order.end(), next) == order.end())
                    order.push_back(next);
        return order;
    }
    Names reach(const std::string &start, Traversal traversal, const std::string &flag) const {
        Names names;
        if (!exists(start))
            return names;
        switch (traversal) {
        case Traversal::This:
            names = {start};
            break;
        case Traversal::OneLevelDown:
            names = lower(start);
            break;
        case Traversal::OneLevelUp:
            names = upper(start);
            break;
        case Traversal::All:
            names = {start};
            for (const std::string &one : all())
                if (one != start)
                    names.push_back(one);
            break;
        case Traversal::Up:
            names = closure(start, false);
            break;
        default:
            names = closure(start, true);
            if (traversal == Traversal::DownExclusive)
                names.erase(names.begin());
        }
        std::erase_if(names, [&](const std::string &one) { return !flag.empty() && !has_flag(one, flag); });
        return names;
    }
    std::string netdev_below(const std::string &name) const {
        const Names found = reach(name, Traversal::Down, "netdev");
        return found.empty() ? "" : found.front();
    }
    std::string live_netdev_below(const std::string &name) const {
        for (const std::string &one : reach(name, Traversal::Down, "netdev"))
            if (has_flag(one, "up"))
                return one;
        return "";
    }
    Names addresses(const std::string &device) const {
        Names paths;
        const auto add = [&](const std::string &name) {
            for (const std::string &one : model_.instances(interface_path(name) + ".IPv4Addr"))
                paths.push_back(interface_path(name) + ".IPv4Addr." + one);
        };
        add(device);
        for (const std::string &name : all())
            if (const std::string live = live_netdev_below(name); has_flag(name, "dhcp") && !has_flag(name, "netdev") &&
                                                                  (live.empty() ? netdev_below(name) : live) == device)
                add(name);
        return paths;
    }
    bool holds_address(const std::string &device) const {
        const Names paths = addresses(device);
        return std::any_of(paths.begin(), paths.end(), [&](const std::string &path) {
            return model_.boolean(path, "Enable") && !model_.text(path, "Address").empty();
        });
    }

private:
    const Model &model_;
};

/* An open query and what it was told last. */
struct Query {
    std::string start;
    Traversal traversal;
    std::string flag;
    Names told{"(nothing yet)"};

    static void handler(const variant_t *result, void *data) {
        auto *query = static_cast<Query *>(data);
        query->told.clear();
        for (auto *it = variant_list_first(variant_da_list(result)); it; it = variant_list_iterator_next(it))
            query->told.emplace_back(variant_da_char(variant_list_iterator_data(it)));
    }
};

const std::pair<const char *, Traversal> ways[] = {{weft_traverse_this, Traversal::This},
                                                   {weft_traverse_down, Traversal::Down},
                                                   {weft_traverse_down_exclusive, Traversal::DownExclusive},
                                                   {weft_traverse_one_level_down, Traversal::OneLevelDown},
                                                   {weft_traverse_one_level_up, Traversal::OneLevelUp},
                                                   {weft_traverse_all, Traversal::All}};

class Graph : public testing::Test {
protected:
    Graph() {
        TraceLog::instance().set_print(false);
        model.load_file(SOURCE_DIR "/share/gateway.json");
        for (const std::string &name : model.instances("Weft.Intf"))
            model.remove(interface_path(name));
        host_attach(loop, graph, runner);
        weft_client_initialize(rig_getHull(), nullptr);
    }
    ~Graph() override {
        weft_client_cleanup();
        host_detach();
        TraceLog::instance().clear();
    }

    unsigned below(unsigned bound) { return static_cast<unsigned>(random() % bound); }
    std::string some_name() { return names[below(8)]; }
    std::string some_words(const std::vector<std::string> &from) {
        std::string words;
        for (const std::string &one : from)
            if (below(3) == 0)
                words = with_word(words, one);
        return words;
    }

    void change_something() {
        const std::string name = some_name();
        const std::string path = interface_path(name);
        switch (below(7)) {
        case 0:
        case 1:
            model.add("Weft.Intf", name,
                      {{"Flags", some_words(flags)}, {"LowerLayers", some_words({names, std::end(names)})}});
            break;
        case 2:
            model.remove(path);
            break;
        case 3:
            model.set(path, {{"Flags", some_words(flags)}});
            break;
        case 4:
            model.set(path, {{"LowerLayers", some_words({names, std::end(names)})}});
            break;
        case 5:
            model.add(path + ".IPv4Addr", std::nullopt, {{"Address", std::string("10.0.0.1")}});
            break;
        default:
            model.remove(path + ".IPv4Addr.1");
        }
    }

    std::mt19937 random{20261125};
    const char *const names[8] = {"a", "a.1", "a.1.2", "b", "b.1", "c", "d", "e"};
    const std::vector<std::string> flags{"netdev", "dhcp", "logical", "up", "x"};
    SimLoop loop;
    Model model{loop};
    InterfaceGraph graph{model};
    NoPrograms runner;
};

} // namespace

TEST_F(Graph, AlwaysSaysWhatAPlainReadingOfTheModelSays) {
    const PlainReading plain(model);
    for (int round = 0; round < 3000; ++round) {
        change_something();
        const std::string name = some_name();
        const std::string flag = below(2) ? flags[below(5)] : "";
        Expression condition;
        std::string error;
        ASSERT_TRUE(Expression::parse(Expression::Syntax::Flags, flag, &condition, &error));
        for (const auto &[text, way] : ways)
            ASSERT_EQ(graph.reach(name, way, condition), plain.reach(name, way, flag)) << round << " " << text;
        ASSERT_EQ(graph.reach(name, Traversal::Up, condition), plain.reach(name, Traversal::Up, flag)) << round;
        ASSERT_EQ(graph.addresses(name), plain.exists(name) ? plain.addresses(name) : Names()) << round;
        ASSERT_EQ(graph.netdev_below(name), plain.netdev_below(name)) << round;
        ASSERT_EQ(graph.live_netdev_below(name), plain.live_netdev_below(name)) << round;
        Names carrying = plain.all();
        std::erase_if(carrying, [&](const std::string &one) { return !plain.has_flag(one, "up"); });
        ASSERT_EQ(graph.with_flag("up"), carrying) << round;
    }
}

TEST_F(Graph, EveryQueryIsToldOfEveryChangeOfItsResult) {
    const PlainReading plain(model);
    std::vector<Query> queries;
    queries.reserve(60);
    for (int i = 0; i < 60; ++i) {
        const auto &[text, way] = ways[below(6)];
        queries.push_back({some_name(), way, below(2) ? flags[below(5)] : ""});
        weft_openQuery_getIntfs(queries.back().start.c_str(), "test", queries.back().flag.c_str(), text, Query::handler,
                                &queries.back());
    }
    for (int round = 0; round < 2000; ++round) {
        for (unsigned changes = 1 + below(3); changes > 0; --changes)
            change_something();
        loop.run_until_idle();
        for (const Query &query : queries)
            ASSERT_EQ(query.told, plain.reach(query.start, query.traversal, query.flag))
                << round << " " << query.start << " " << query.flag;
    }
}

TEST_F(Graph, AnInterfaceThatIsNamedTwiceIsBelowOnce) {
    for (const char *name : {"data", "eth1"})
        model.add("Weft.Intf", name, {});
    model.set("Weft.Intf.data", {{"LowerLayers", std::string("nowhere eth1 nowhere eth1")}});
    EXPECT_EQ(graph.reach("data", Traversal::Down), (Names{"data", "eth1"}));
    model.set("Weft.Intf.data", {{"LowerLayers", std::string()}});
    EXPECT_EQ(graph.reach("data", Traversal::Down), Names{"data"});
    model.remove("Weft.Intf.eth1");
    EXPECT_FALSE(graph.exists("eth1"));
}

TEST_F(Graph, DerivedFlagsAndWantedClientsFollowEveryChange) {
    const PlainReading plain(model);
    const InterfaceState state(loop, graph);
    std::map<std::string, std::string> clients;
    const WantedWanClients wanted(
        loop, graph,
        [&](const std::string &name, const std::string &device) {
            EXPECT_FALSE(clients.contains(name));
            clients[name] = device;
        },
        [&](const std::string &name) { EXPECT_EQ(clients.erase(name), 1U); });
    for (int round = 0; round < 2000; ++round) {
        change_something();
        if (below(4) == 0)
            model.set(interface_path(some_name()), {{"Enable", below(2) == 0}});
        loop.advance(1000);
        std::map<std::string, std::string> expected;
        for (const std::string &name : plain.all()) {
            if (plain.has_flag(name, "netdev")) {
                ASSERT_EQ(plain.has_flag(name, "ipv4"), plain.has_flag(name, "up") && plain.holds_address(name))
                    << round << " " << name;
            }
            const bool looks = plain.has_flag(name, "dhcp") && model.boolean(interface_path(name), "Enable");
            const std::string device = plain.live_netdev_below(name);
            if (looks && !device.empty())
                expected[name] = device;
            ASSERT_EQ(model.text(interface_path(name), "DHCPStatus"), looks ? "Selecting" : "Idle") << round;
        }
        ASSERT_EQ(clients, expected) << round;
    }
}

TEST_F(Graph, AFixedAddressStandsAgainUnlessItsTextIsNone) {
    const InterfaceState state(loop, graph);
    const std::string stands = "Weft.Intf.a.IPv4Addr.iptv";
    const auto complaints = [] {
        const auto &lines = TraceLog::instance().recent();
        return std::count_if(lines.begin(), lines.end(), [](const TraceLine &line) {
            return line.text.starts_with("Weft.Intf.a: IPTVAddress ") && line.level == Level::Warning;
        });
    };
    TraceLog::instance().clear();
    ASSERT_FALSE(model.add("Weft.Intf", std::string("a"), {}));
    long expected = 0;
    for (const std::string text :
         {"10.20.0.40/2x", "10.20.0.40", "10.20.0.40/33", "10.20.0/24", "10.20.0.40/4294967320"}) {
        model.set("Weft.Intf.a", {{"IPTVAddress", text}});
        loop.run_until_idle();
        EXPECT_FALSE(model.find(stands)) << text;
        EXPECT_EQ(complaints(), ++expected);
    }
    graph.set_flag("a", "up", true);
    loop.run_until_idle();
    EXPECT_EQ(complaints(), expected) << "once for each text";

    model.set("Weft.Intf.a", {{"IPTVAddress", std::string("10.20.0.40/24")}});
    loop.run_until_idle();
    model.remove(stands);
    loop.run_until_idle();
    EXPECT_EQ(model.text(stands, "Address"), "10.20.0.40");
    EXPECT_EQ(model.integer(stands, "PrefixLen"), 24);
    EXPECT_FALSE(model.boolean(stands, "Enable"));
    EXPECT_EQ(complaints(), expected);
}

} // namespace keel

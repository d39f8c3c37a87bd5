/*
 * The settings file: what it may say, what it is in the data model, and how it goes with what was set otherwise.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include <unistd.h>

#include "host/base/trace.h"
#include "host/config/box_settings.h"
#include "host/gateway/graph.h"
#include "host/model/store.h"
#include "host/sim/sim_loop.h"

namespace keel {

namespace {

using Lines = std::vector<std::string>;
constexpr const char *model_file = SOURCE_DIR "/share/gateway.json";

std::string read_file(const std::string &name) {
    std::ostringstream text;
    text << std::ifstream(name).rdbuf();
    return text.str();
}

/* Every parameter of the tree, one a line. */
void print(const Node &node, std::string &printed) {
    for (const Parameter &parameter : node.parameters)
        printed +=
            node.path() + "." + parameter.name() + "=" + (parameter.present ? to_text(parameter.value) : "-") + "\n";
    for (const Node &child : node.children)
        print(child, printed);
}

} // namespace

class ConfigTest : public testing::Test {
protected:
    ConfigTest() : folder(std::filesystem::temp_directory_path() / ("config-" + std::to_string(getpid()))) {
        std::filesystem::create_directories(folder);
        TraceLog::instance().set_print(false);
        TraceLog::instance().clear();
    }
    ~ConfigTest() override { std::filesystem::remove_all(folder); }

    std::string file() const { return folder / "keelhost.toml"; }
    void write(const std::string &text) const { std::ofstream(file()) << text; }
    /* What is wrong with a file, without its name. */
    Lines mistakes(const std::string &text) {
        write(text);
        Model model(loop);
        model.load_file(model_file);
        Lines errors = read_box_config(file(), box_defaults(model)).errors;
        for (std::string &error : errors) {
            EXPECT_EQ(error.find(file() + ":"), 0U) << error;
            error = error.substr(file().size() + 1);
        }
        return errors;
    }
    Lines traces() const {
        Lines lines;
        for (const TraceLine &line : TraceLog::instance().recent())
            if (line.zone == "settings")
                lines.push_back(line.text);
        TraceLog::instance().clear();
        return lines;
    }

    /* A host as far as it concerns the settings, until its next start. */
    struct Host {
        Host(SimLoop &loop, const std::string &settings, const std::string &store) : model(loop) {
            model.load_file(model_file);
            box.emplace(model, settings, true);
            graph.emplace(model);
            kept.emplace(loop, model, store);
            box->after_store();
        }
        std::string text(const std::string &path, const std::string &parameter) const {
            return to_text(model.get(path, parameter).value_or(Value(std::string("?"))));
        }
        void set(const std::string &path, const Values &values) {
            EXPECT_FALSE(model.set(path, values));
            kept->flush();
        }

        Model model;
        std::optional<BoxSettings> box;
        std::optional<InterfaceGraph> graph;
        std::optional<Store> kept;
    };
    void start() {
        host.reset();
        host.emplace(loop, file(), folder / "keel.db");
    }

    SimLoop loop;
    std::filesystem::path folder;
    std::optional<Host> host;
};

TEST_F(ConfigTest, TheShippedFileSaysWhatTheModelDoes) {
    const std::string shipped = read_file(SOURCE_DIR "/share/keelhost.toml");
    EXPECT_EQ(mistakes(shipped), Lines{});
    std::string
        commented; /* what stands there as an example is taken, too, and contradicts nothing but its other way */
    std::istringstream lines(shipped);
    for (std::string line; std::getline(lines, line);)
        if (!line.starts_with("device") && !line.starts_with("vlan"))
            commented += (line.starts_with("#") && !line.starts_with("# ") ? line.substr(1) : line) + "\n";
    EXPECT_EQ(mistakes(commented), Lines{});
    for (const BoxKey &key : box_keys()) {
        const std::string name = key.name;
        EXPECT_NE(shipped.find(name.substr(name.find('.') + 1) + " = "), std::string::npos)
            << name << " is not explained";
    }

    std::string with;
    std::string without;
    Model plain(loop);
    plain.load_file(model_file);
    print(*plain.find(""), without);
    write(shipped);
    Model set(loop);
    set.load_file(model_file);
    const BoxSettings settings(set, file(), false);
    print(*set.find(""), with);
    EXPECT_EQ(with, without);
    EXPECT_EQ(traces(), Lines{});
}

TEST_F(ConfigTest, WhatItSetsIsInTheModel) {
    write(R"([service]
mode = "SimplifiedV2"
interface = "Internet"
enable = false
mono-client = true
lease-time = 600
[iptv]
device = "wan0"
vlan = 835
address = "10.9.0.5/29"
[data]
interface = "eth1.20"
[wan]
mac = "02:AB:00:00:00:01"
vendor-class = "box 7"
request-options = [121, 3]
client-id = "k"
[lan]
bridge = "br0"
address = "10.0.4.1/22"
dns = ["9.9.9.9", "10.0.4.1"]
[stb]
vendor-class = "stb"
first = "10.0.4.2"
last = "10.0.5.255"
[itf]
vendor-class = "itf"
first = "10.0.6.0"
last = "10.0.6.0"
[others]
first = "10.0.7.0"
last = "10.0.7.254"
)");
    start();
    EXPECT_EQ(traces(), Lines{});
    const std::map<std::string, std::map<std::string, std::string>> expected = {
        {"Keel", {{"IPTVMode", "Internet"}}},
        {"Keel.Zephyrin",
         {{"Mode", "SimplifiedV2"}, {"Interface", "Internet"}, {"Enable", "false"}, {"MonoClient", "true"}}},
        {"Keel.Zephyrin.DHCPConfig", {{"LeaseTime", "600"}}},
        {"Weft.Intf.wan0.835", {{"Flags", "netdev vlan zep-mcast zep-dhcp-vlan"}, {"IPTVAddress", "10.9.0.5/29"}}},
        {"Weft.Intf.eth1.20", {{"Flags", "netdev vlan"}, {"IPTVAddress", ""}}},
        {"Weft.Intf.br0", {{"Flags", "netdev bridge"}}},
        {"Weft.Intf.dhcp_iptv", {{"LowerLayers", "wan0.835"}, {"Enable", "false"}}},
        {"Weft.Intf.dhcp_iptv.SentOption.61", {{"Value", "006b"}}},
        {"Weft.Intf.dhcp_iptv.MIB.dhcp", {{"VendorClass", "box 7"}, {"RequestedOptions", "121 3"}}},
        {"Weft.Intf.data", {{"LowerLayers", "eth1.20"}}},
        {"Weft.Intf.lan", {{"LowerLayers", "br0"}}},
        {"DHCPv4.Server", {{"Interface", "br0"}}},
        {"DHCPv4.Server.Pool.zep_stb", {{"Router", "10.0.4.1"}, {"SubnetMask", "255.255.252.0"}}},
        {"DHCPv4.Server.Pool.zep_itf", {{"Router", "10.0.4.1"}, {"SubnetMask", "255.255.252.0"}}},
        {"DHCPv4.Server.Pool.lan", {{"Router", "10.0.4.1"}, {"SubnetMask", "255.255.252.0"}}},
        {"DHCPv4.Server.Pool.lan.Option.dns", {{"Enable", "true"}, {"Value", "090909090a000401"}}},
        {"DHCPv4.Server.Pool.zep_stb.Rule.1",
         {{"VendorClass", "stb"}, {"MinAddress", "10.0.4.2"}, {"MaxAddress", "10.0.5.255"}}},
        {"DHCPv4.Server.Pool.zep_itf.Rule.1",
         {{"VendorClass", "itf"}, {"MinAddress", "10.0.6.0"}, {"MaxAddress", "10.0.6.0"}}},
        {"DHCPv4.Server.Pool.lan.Rule.1", {{"MinAddress", "10.0.7.0"}, {"MaxAddress", "10.0.7.254"}}},
    };
    for (const auto &[path, values] : expected)
        for (const auto &[parameter, value] : values)
            EXPECT_EQ(host->text(path, parameter), value) << path << "." << parameter;
    EXPECT_FALSE(host->graph->exists("br-lan") || host->graph->exists("eth1.10"));
    EXPECT_EQ(host->graph->netdev_below("iptv"), "wan0.835");
    EXPECT_EQ(host->box->wan_mac(), "02:ab:00:00:00:01");
}

TEST_F(ConfigTest, EveryMistakeIsToldWithItsLine) {
    EXPECT_EQ(mistakes("[service\n").size(), 1U);
    EXPECT_EQ(mistakes("[service]\nmode = \"Routed\"\nmode = \"Bridged\"\n").at(0).substr(0, 3), "3: ");
    EXPECT_EQ(
        mistakes(R"([service]
mode = "Rooted"
mono-client = 1
lease-time = 1.5
lease_time = 60
[stb]
first = 20
last = ["192.168.1.30"]
[sbt]
first = "192.168.1.20"
[lan]
address = "192.168.1.0/24"
dns = ["192.168.1.1", "dns.example"]
)"),
        (Lines{
            R"(2: service.mode is "Rooted": "Bridged", "Routed", "Simplified" or "SimplifiedV2" is allowed)",
            "3: service.mono-client is 1: true or false is allowed",
            "4: service.lease-time is nothing that is used here: a number of seconds from 60 to 31536000 is allowed",
            std::string(R"(5: there is no "service.lease_time": there are service.enable, service.mode, )") +
                "service.interface, service.mono-client, service.lease-time",
            R"(7: stb.first is 20: an address such as "192.168.1.20" is allowed)",
            R"(8: stb.last is ["192.168.1.30"]: an address such as "192.168.1.20" is allowed)",
            std::string(R"(10: there is no "sbt.first": there are the tables [service], [iptv], )") +
                "[data], [wan], [lan], [stb], [itf], [others]",
            std::string(R"(12: lan.address is "192.168.1.0/24": an address with the length of its subnet's )") +
                R"(prefix, 8 to 30, such as "192.168.1.1/24", is allowed, and not the subnet's first or last address)",
            std::string(R"(13: lan.dns is ["192.168.1.1", "dns.example"]: a list of up to 8 addresses, such as )") +
                R"(["192.168.1.1"], is allowed)"}));
    const Lines bad_values = {"[iptv]\ninterface = \"eth1;reboot\"",
                              "[iptv]\ninterface = \"a-name-too-long1\"",
                              "[iptv]\ninterface = \"\"",
                              "[iptv]\ndevice = \"eth1\"\nvlan = 4095",
                              "[iptv]\nvlan = 20",
                              "[iptv]\ndevice = \"longer-name\"\nvlan = 4000",
                              "[iptv]\ndevice = \"eth1\"\ninterface = \"eth1\"",
                              "[iptv]\ninterface = \"br-lan\"",
                              "[iptv]\ninterface = \"lo\"",
                              "[data]\ninterface = \"iptv\"",
                              "[wan]\nmac = \"01:00:00:00:00:01\"",
                              "[wan]\nmac = \"02-00-00-00-00-01\"",
                              "[wan]\nrequest-options = [3, 3]",
                              "[wan]\nrequest-options = [0]",
                              "[wan]\nrequest-options = []",
                              "[wan]\nvendor-class = \"\"",
                              "[wan]\nvendor-class = \"a\\nb\"",
                              "[lan]\naddress = \"192.168.1.1\"",
                              "[lan]\naddress = \"192.168.1.1/31\"",
                              "[stb]\nvendor-class = \"zep-itf\"",
                              "[stb]\nfirst = \"c0a80114\"",
                              "service = true",
                              "[stb.more]\n",
                              "[service]\nlease-time = 59"};
    for (const std::string &one : bad_values)
        EXPECT_EQ(mistakes(one).size(), 1U) << one;
    EXPECT_EQ(mistakes("[service]\n\n[lan]\n"), Lines{}) << "an empty table sets nothing";
    EXPECT_EQ(mistakes(""), Lines{});
    EXPECT_EQ(mistakes("[data]\ninterface = \"eth1.20\"\n[iptv]\ninterface = \"eth1.10\"\n"), Lines{}) << "exchanged";
}

TEST_F(ConfigTest, RangesFitTheSubnetAndEachOther) {
    EXPECT_EQ(mistakes("[lan]\naddress = \"192.168.1.30/24\"\n[itf]\nfirst = \"192.168.1.30\"\n"),
              (Lines{"2: [stb], 192.168.1.20 to 192.168.1.39 has the gateway's own address: leave 192.168.1.30 out",
                     "4: [itf], 192.168.1.30 to 192.168.1.49 has the gateway's own address: leave 192.168.1.30 out"}));
    EXPECT_EQ(mistakes("[stb]\nfirst = \"192.168.1.39\"\nlast = \"192.168.1.40\"\n[others]\nfirst = \"192.168.2.1\"\n"
                       "[itf]\nlast = \"192.168.1.39\"\n"),
              (Lines{"7: [itf], 192.168.1.40 to 192.168.1.39: the last address is below the first",
                     "5: others.first is 192.168.2.1: a device's address from 192.168.1.1 to 192.168.1.254, the subnet "
                     "of lan.address, is allowed"}));
    EXPECT_EQ(
        mistakes("[others]\nfirst = \"192.168.1.35\"\n\nlast = \"192.168.1.45\"\n"),
        (Lines{"4: [stb], 192.168.1.20 to 192.168.1.39, and [others], 192.168.1.35 to 192.168.1.45, overlap: part "
               "them",
               "4: [itf], 192.168.1.40 to 192.168.1.49, and [others], 192.168.1.35 to 192.168.1.45, overlap: part "
               "them"}));
    const Lines moved =
        mistakes("[lan]\naddress = \"10.0.0.1/24\"\n[stb]\nfirst = \"10.0.0.2\"\nlast = \"10.0.0.255\"\n");
    ASSERT_EQ(moved.size(), 3U);
    EXPECT_EQ(moved[0].substr(0, moved[0].find(" to ")), "5: stb.last is 10.0.0.255: a device's address from 10.0.0.1");
    EXPECT_EQ(moved[1].substr(0, moved[1].find(": a")), "2: itf.first is 192.168.1.40 by default");
}

TEST_F(ConfigTest, WhatWasRefusedIsNotBlamedForMore) {
    EXPECT_EQ(mistakes("[service]\nmode = 1\n[others]\nfirst = \"192.168.1.49\"\n").size(), 2U) << "the overlap, too";
    EXPECT_EQ(mistakes("[lan]\naddress = \"10.0.0.1\"\n[stb]\nfirst = \"10.0.0.2\"\nlast = \"10.0.0.9\"\n").size(), 1U);
    EXPECT_EQ(mistakes("[iptv]\ndevice = 1\nvlan = 20\n[data]\ninterface = \"eth1.20\"\n").size(), 1U);
    EXPECT_EQ(mistakes("[stb]\nfirst = 1\nlast = \"192.168.1.10\"\n").size(), 1U);
}

TEST_F(ConfigTest, AMistakeKeepsTheHostFromStarting) {
    write("[service]\nmode = \"x\"\nenable = 1\n");
    Model model(loop);
    model.load_file(model_file);
    try {
        const BoxSettings settings(model, file(), true);
        FAIL() << "it was taken";
    } catch (const BoxConfigError &error) {
        EXPECT_EQ(std::string(error.what()).find(file() + ":2: "), 0U);
        EXPECT_NE(std::string(error.what()).find("\n" + file() + ":3: "), std::string::npos);
    }
    EXPECT_EQ(model.text("Keel.Zephyrin", "Mode"), "Routed");
    EXPECT_THROW(BoxSettings(model, folder / "none.toml", false), BoxConfigError);
    EXPECT_THROW(BoxSettings(model, folder, true), BoxConfigError) << "a folder";
    const BoxSettings none(model, folder / "none.toml", true);
    EXPECT_EQ(none.wan_mac(), "");
}

/* The store brings back all of an object once something of it was written. */
TEST_F(ConfigTest, TheLatestOfFileAndKeelctlIsInForceAfterAStart) {
    write("[service]\nmode = \"Routed\"\n");
    start();
    host->set("Keel.Zephyrin", {{"Status", std::string("Enabled, really")}});
    start();
    EXPECT_EQ(traces(), Lines{});
    host->set("Keel.Zephyrin", {{"Mode", std::string("Simplified")}});
    start();
    EXPECT_EQ(host->text("Keel.Zephyrin", "Mode"), "Simplified");
    EXPECT_EQ(traces(), Lines{"Keel.Zephyrin.Mode is Simplified, as set with keelctl; keelhost.toml says Routed"});

    write("[service]\nmode = \"Routed\"\nmono-client = true\n");
    start();
    EXPECT_EQ(host->text("Keel.Zephyrin", "MonoClient"), "true") << "the file has it now, the store the model's false";
    EXPECT_EQ(host->text("Keel.Zephyrin", "Mode"), "Simplified");
    EXPECT_EQ(traces().size(), 1U);
    write("[service]\nmode = \"Bridged\"\n");
    start();
    EXPECT_EQ(host->text("Keel.Zephyrin", "Mode"), "Bridged");
    EXPECT_EQ(host->text("Keel.Zephyrin", "MonoClient"), "false") << "left out again: the default";
    EXPECT_EQ(traces(), Lines{});
    start();
    EXPECT_EQ(host->text("Keel.Zephyrin", "Mode"), "Bridged");

    std::filesystem::remove(file());
    start();
    EXPECT_EQ(host->text("Keel.Zephyrin", "Mode"), "Routed");
    host->set("Keel.Zephyrin", {{"Mode", std::string("Bridged")}});
    write("[service]\nmode = \"Simplified\"\n"); /* the first file that this store sees */
    start();
    EXPECT_EQ(host->text("Keel.Zephyrin", "Mode"), "Bridged");
    EXPECT_EQ(traces(), Lines{"Keel.Zephyrin.Mode is Bridged, as set with keelctl; keelhost.toml says Simplified"});
}

TEST_F(ConfigTest, ARunningHostTakesOverWhatHasChanged) {
    write("[service]\nmode = \"Routed\"\nmono-client = true\n[stb]\nfirst = \"192.168.1.22\"\n");
    start();
    host->set("Keel.Zephyrin", {{"Mode", std::string("Simplified")}});
    const auto before = host->model.latest_event();
    host->box->reload();
    EXPECT_EQ(traces(), Lines{file() + " is read again: nothing in it has changed"});
    write("[service]\nmode = \"Routed\"\n[stb]\nfirst = \"192.168.1.22\"\nlast = \"192.168.1.21\"\n");
    host->box->reload();
    EXPECT_EQ(host->model.latest_event(), before) << "nothing is written, also what is right";
    EXPECT_EQ(traces().at(0).find(file() + ":5: "), 0U);

    int events = 0;
    host->model.watch("DHCPv4.Server.Pool.zep_stb.Rule.1", [&](const Event &) { ++events; });
    write("[service]\nmode = \"Routed\"\n[stb]\nfirst = \"192.168.1.50\"\nlast = \"192.168.1.60\"\n"
          "[iptv]\ninterface = \"eth9\"\n[lan]\nbridge = \"br-lan\"\ndns = []\n");
    host->box->reload();
    loop.run_until_idle();
    EXPECT_EQ(events, 1) << "both ends of a range in one change";
    EXPECT_EQ(host->text("DHCPv4.Server.Pool.zep_stb.Rule.1", "MinAddress"), "192.168.1.50");
    EXPECT_EQ(host->text("DHCPv4.Server.Pool.lan.Option.dns", "Enable"), "false");
    EXPECT_EQ(host->text("Keel.Zephyrin", "MonoClient"), "false") << "left out: the default";
    EXPECT_EQ(host->text("Keel.Zephyrin", "Mode"), "Simplified") << "as keelctl set it; the file has not changed it";
    EXPECT_TRUE(host->graph->exists("eth1.20"));
    EXPECT_EQ(traces(), (Lines{"iptv.interface is eth9 now: restart keelhost, until then it stays as it was",
                               "lan.dns is empty now", "service.mono-client is left to its default now",
                               "stb.first is 192.168.1.50 now", "stb.last is 192.168.1.60 now"}));
    std::filesystem::remove(file());
    host->box->reload();
    EXPECT_EQ(traces().at(0), file() + ": is not there any more");
    EXPECT_EQ(host->text("DHCPv4.Server.Pool.zep_stb.Rule.1", "MinAddress"), "192.168.1.50");
}

} // namespace keel

/*
 * A whole gateway on a virtual clock: the real plug-in, the host's components, and the twins of everything outside.
 */
#ifndef TESTS_SIM_GATEWAY_H
#define TESTS_SIM_GATEWAY_H

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/base/trace.h"
#include "host/dhcp/lan_server.h"
#include "host/gateway/interface_state.h"
#include "host/gateway/leftovers.h"
#include "host/gateway/settings.h"
#include "host/model/store.h"
#include "host/platform/plugin.h"
#include "host/sim/sim_kernel.h"
#include "host/sim/sim_lan.h"
#include "host/sim/sim_loop.h"
#include "host/sim/sim_operator.h"

namespace keel {

/* iptables and ebtables, as far as the plug-in uses them: what they are told is recorded, and the rules in force are
 * kept. */
class RecordedFirewall {
public:
    std::vector<std::string> commands;
    std::vector<std::string> rules;        /* of iptables: "TABLE CHAIN RULE..." */
    std::vector<std::string> bridge_rules; /* of ebtables, likewise */
    std::string failing;                   /* commands that contain this text fail */

    int run(const std::string &command) {
        commands.push_back(command);
        if (!failing.empty() && command.find(failing) != std::string::npos)
            return 256;
        std::istringstream words(command);
        std::string program;
        std::string flag;
        std::string table;
        std::string operation;
        std::string chain;
        std::string rest;
        words >> program >> flag >> table >> operation >> chain;
        std::getline(words, rest);
        const std::string rule = table + " " + chain + rest;
        auto &in_force = program.ends_with("ebtables") ? bridge_rules : rules;
        if (operation == "-F")
            std::erase_if(in_force, [&](const std::string &r) { return r.starts_with(table + " " + chain + " "); });
        else if (operation == "-A")
            in_force.push_back(rule);
        else if (const auto found = std::find(in_force.begin(), in_force.end(), rule); found != in_force.end())
            in_force.erase(found);
        else
            return 256;
        return 0;
    }

    std::size_t count(const std::string &part) const {
        return static_cast<std::size_t>(std::count_if(
            rules.begin(), rules.end(), [&](const std::string &rule) { return rule.find(part) != std::string::npos; }));
    }
    bool mapped(const std::string &lan, const std::string &wan) const {
        return count("nat POSTROUTING_zep -s " + lan + " -j SNAT --to-source " + wan) == 1 &&
               count("nat PREROUTING_zep -j DNAT --to-destination " + lan + " -d " + wan) == 1 &&
               count("filter FORWARD_zep -s " + lan + " -j ACCEPT") == 1;
    }
};

inline RecordedFirewall firewall;

/* The firewall script's twin: each run takes a while, and the rules that it would leave are kept. */
class ScriptRuns : public ProcessRunner {
public:
    static constexpr std::uint64_t run_ms = 50;

    std::vector<std::string> runs;  /* the arguments of each, in the order of their start */
    std::set<std::string> in_force; /* "main_rules INTERFACE", "aux_rules ADDRESS" */
    bool missing = false;           /* the script cannot be started */
    Loop *loop = nullptr;

    bool run(const std::vector<std::string> &argv, OnExit on_exit) override {
        if (missing || argv.size() != 4 || argv[0] != "/usr/bin/zep_firewall.sh")
            return false;
        runs.push_back(argv[1] + " " + argv[2] + " " + argv[3]);
        const std::string rule = argv[1] + " " + argv[3];
        if (argv[2] == "A")
            in_force.insert(rule);
        else
            in_force.erase(rule);
        loop->start_timer(run_ms, [on_exit] { on_exit(0); });
        return true;
    }
};

} // namespace keel

#ifndef SIM_GATEWAY_RUNS_COMMANDS
/* Takes the place of the C library's for the plug-in: commands are recorded instead of run. */
extern "C" inline __attribute__((used, visibility("default"))) int system(const char *command) {
    return keel::firewall.run(command);
}
#endif

namespace keel {

constexpr std::uint64_t second = 1000;
constexpr std::uint64_t minute = 60 * second;
constexpr std::uint64_t hour = 60 * minute;

/* What the operator leases to the gateway's own IPTV client. */
constexpr const char *gateway_address = "10.20.0.9";
/* Routes 10.60.0.0/24 and 10.61.0.0/16 via 10.20.0.1 (RFC 3442). */
constexpr const char *two_routes = "180a3c000a140001100a3d0a140001";

class SimGateway : public testing::Test {
protected:
    SimGateway() {
        TraceLog::instance().set_print(std::getenv("ZEPHYRIN_TRACE") != nullptr);
        TraceLog::instance().clear();
        setenv("WAN_ADDR", "02:1a:2b:3c:4d:5e", 1);
        firewall = {};
        store_file_ = std::filesystem::temp_directory_path() / ("zephyrin-test-" + std::to_string(getpid()) + ".db");
        remove_store();
    }

    ~SimGateway() override {
        power_off();
        remove_store();
    }

    /* The host, without the plug-in. */
    void build() {
        loop = std::make_unique<SimLoop>();
        model = std::make_unique<Model>(*loop);
        model->load_file(SOURCE_DIR "/share/gateway.json");
        graph = std::make_unique<InterfaceGraph>(*model);
        model->add("Weft.Intf", "eth1.30", {{"Flags", std::string("netdev vlan")}});
        model->set("Weft.Intf.dhcp_iptv", {{"LowerLayers", std::string("eth1.20 eth1.30")}});
        store = std::make_unique<Store>(*loop, *model, store_file_);
        drop_leftovers(*model);
        settings = std::make_unique<Settings>(*model);
        kernel = std::make_unique<SimKernel>(*graph);
        interface_state = std::make_unique<InterfaceState>(*loop, *graph);
        wan = std::make_unique<SimOperator>(*loop, *graph);
        wan->lease_address(model->text("Weft.Intf.dhcp_iptv.SentOption.61", "Value"), gateway_address);
        wan->options = {{42, "0a140002"}, {72, "0a140003"}, {121, two_routes}};
        lan = std::make_unique<SimLan>(*loop);
        lan_server = std::make_unique<LanDhcpServer>(*loop, *model, *lan);
        lan->plug_in(lan_server.get());
        kernel->set_link("eth1.20", true);
        script = {};
        script.loop = loop.get();
        host_attach(*loop, *graph, script);
        loop->run_until_idle();
    }

    /* An exported operation of the plug-in, which must be loaded. */
    template <typename Operation> Operation *operation(const char *name) {
        void *library = dlopen(PLUGIN_FILE, RTLD_NOW | RTLD_NOLOAD);
        void *found = library ? dlsym(library, name) : nullptr;
        EXPECT_NE(found, nullptr) << name;
        if (library)
            dlclose(library);
        return reinterpret_cast<Operation *>(found);
    }

    void load_plugin() {
        std::string error;
        drop_stray_routes(*graph);
        ASSERT_TRUE(plugin_load(PLUGIN_FILE, &error)) << error;
        loop->run_until_idle();
    }

    void power_on() {
        build();
        load_plugin();
    }

    /* An orderly stop. */
    void stop_plugin() {
        plugin_unload();
        loop->run_until_idle();
    }

    /* The gateway is gone between two instructions: what stays is the store as it is now. */
    void power_cut() {
        for (const char *suffix : {"", "-wal"})
            std::filesystem::copy_file(store_file_ + suffix, store_file_ + ".saved" + suffix);
        power_off();
        remove_store();
        for (const char *suffix : {"", "-wal"})
            std::filesystem::rename(store_file_ + ".saved" + suffix, store_file_ + suffix);
        firewall = {};
        TraceLog::instance().clear();
    }

    void power_off() {
        devices_.clear();
        if (!model)
            return;
        plugin_unload();
        host_detach();
        EXPECT_EQ(traced("the plug-in left"), 0U) << "timers, requests or queries that outlive their owners";
        lan_server.reset();
        lan.reset();
        wan.reset();
        interface_state.reset();
        kernel.reset();
        settings.reset();
        store.reset();
        graph.reset();
        model.reset();
        loop.reset();
    }

    SimDevice &device(unsigned number, const char *vendor_class = "zep-stb") {
        auto &one = devices_[number];
        if (!one)
            one = std::make_unique<SimDevice>(*loop, *lan, number, vendor_class);
        return *one;
    }

    /* Switches a device on and lets it be served. */
    SimDevice &serve(unsigned number, const char *vendor_class = "zep-stb") {
        SimDevice &one = device(number, vendor_class);
        one.start();
        loop->advance(2 * second);
        return one;
    }

    void set(const std::string &path, const Values &values) {
        const Outcome refusal = model->set(path, values);
        ASSERT_FALSE(refusal) << refusal->path << ": " << refusal->reason;
        loop->run_until_idle();
    }

    void set_present(const SimDevice &one, bool present) {
        const std::string path = "Hosts.Host." + one.mac();
        if (!model->find(path))
            model->add("Hosts.Host", one.mac(), {{"MACAddress", one.mac()}, {"Active", present}});
        else
            model->set(path, {{"Active", present}});
        loop->run_until_idle();
    }

    std::string identity(const std::string &name, const char *parameter) const {
        const auto value = model->get("Keel.Zephyrin.ClientLease." + name, parameter);
        return value ? to_text(*value) : "(none)";
    }

    std::string wan_client(const std::string &name, const char *parameter) const {
        const auto value = model->get("Weft.Intf.dhcp_zep_" + name, parameter);
        return value ? to_text(*value) : "(none)";
    }

    bool held(const SimDevice &one) const {
        const std::string pool = lease_path(one);
        return model->boolean(pool, "OnHold");
    }

    std::string lease_path(const SimDevice &one) const {
        for (const char *pool : {"zep_stb", "zep_itf", "lan"}) {
            std::string path = std::string("DHCPv4.Server.Pool.") + pool + ".Rule.1.Lease." + one.id();
            if (model->find(path))
                return path;
        }
        return "";
    }

    /* The addresses in force on an interface, in order. */
    std::vector<std::string> addresses(const std::string &device_name = "eth1.20") const {
        std::vector<std::string> all;
        const std::string parent = "Weft.Intf." + device_name + ".IPv4Addr";
        for (const std::string &one : model->instances(parent))
            if (model->boolean(parent + "." + one, "Enable"))
                all.push_back(model->text(parent + "." + one, "Address") + "/" +
                              std::to_string(model->integer(parent + "." + one, "PrefixLen")));
        return all;
    }

    std::vector<std::string> routes(const std::string &device_name = "eth1.20") const {
        std::vector<std::string> all;
        const std::string parent = "Weft.Intf." + device_name + ".IPv4Route";
        for (const std::string &one : model->instances(parent))
            all.push_back(model->text(parent + "." + one, "Dst"));
        return all;
    }

    static std::size_t traced(const std::string &part) {
        const auto &lines = TraceLog::instance().recent();
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const TraceLine &line) {
            return line.text.find(part) != std::string::npos;
        }));
    }

    /* What must hold once the routed mode is over. */
    void expect_clean() {
        EXPECT_EQ(traced("only instances can be deleted"), 0U) << "a client without a lease of its own to end";
        EXPECT_EQ(firewall.rules, (std::vector<std::string>{"raw PREROUTING_zep_ACCEPT -d 224.0.0.0/4 -j ACCEPT",
                                                            "raw PREROUTING_zep_ACCEPT -d 255.255.255.255 -j ACCEPT"}));
        EXPECT_TRUE(addresses().empty());
        EXPECT_TRUE(routes().empty());
        EXPECT_TRUE(model->instances("Keel.Zephyrin.ClientLease").empty());
        for (const std::string &name : model->instances("Weft.Intf"))
            EXPECT_FALSE(name.starts_with("dhcp_zep_")) << name;
    }

    void remove_store() const {
        for (const char *suffix : {"", "-wal", "-shm"})
            std::filesystem::remove(store_file_ + suffix);
    }

    std::unique_ptr<SimLoop> loop;
    std::unique_ptr<Model> model;
    std::unique_ptr<InterfaceGraph> graph;
    std::unique_ptr<Store> store;
    std::unique_ptr<Settings> settings;
    std::unique_ptr<SimKernel> kernel;
    std::unique_ptr<InterfaceState> interface_state;
    std::unique_ptr<SimOperator> wan;
    std::unique_ptr<SimLan> lan;
    std::unique_ptr<LanDhcpServer> lan_server;
    ScriptRuns script;
    std::string store_file_;

private:
    std::map<unsigned, std::unique_ptr<SimDevice>> devices_;
};

} // namespace keel

#endif

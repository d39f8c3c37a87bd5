/*
 * keelhost: the data model, its components on this Linux machine, and the plug-in.
 */
#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "host/base/timeline.h"
#include "host/base/trace.h"
#include "host/base/uv_loop.h"
#include "host/config/box_settings.h"
#include "host/config/import.h"
#include "host/control/control.h"
#include "host/dhcp/lan_server.h"
#include "host/gateway/graph.h"
#include "host/gateway/history.h"
#include "host/gateway/interface_state.h"
#include "host/gateway/leftovers.h"
#include "host/gateway/settings.h"
#include "host/gateway/wan_troubles.h"
#include "host/linux/chains.h"
#include "host/linux/child.h"
#include "host/linux/firewall_check.h"
#include "host/linux/firewall_policy.h"
#include "host/linux/group_look.h"
#include "host/linux/host_lock.h"
#include "host/linux/kernel.h"
#include "host/linux/kernel_tables.h"
#include "host/linux/lan_port.h"
#include "host/linux/multicast.h"
#include "host/linux/presence.h"
#include "host/linux/service_manager.h"
#include "host/linux/stop_signals.h"
#include "host/linux/streams.h"
#include "host/linux/wan_clients.h"
#include "host/model/store.h"
#include "host/platform/plugin.h"
#include "keelhost/check.h"

using namespace keel;

namespace {

constexpr std::uint64_t settle_ms = 3000; /* at the end, for what the plug-in's cleanup has set going */

struct Options {
    std::string model;
    std::string settings = "/etc/keel/keelhost.toml";
    bool settings_given = false; /* else the file need not be there */
    std::string store = "/var/lib/keel/keel.db";
    std::string socket = "/run/keel/keel.sock";
    std::string plugin;
    std::string share;
    std::string udhcpc = "udhcpc";
    std::string igmpproxy = "igmpproxy";
};

/* The installed place, or the one in a build folder. */
std::string default_place(const std::string &installed, const std::string &built) {
    const auto program = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const auto beside = (program / installed).lexically_normal();
    return std::filesystem::exists(beside) ? beside.string() : (program / built).lexically_normal().string();
}

/* The WAN MAC address is the base of the client identifiers; the environment has the first word, the settings file the
 * next. */
void provide_wan_address(const InterfaceGraph &graph, const std::string &set) {
    if (std::getenv("WAN_ADDR"))
        return;
    if (!set.empty()) {
        setenv("WAN_ADDR", set.c_str(), 1);
        return;
    }
    const std::string device = graph.netdev_below("iptv");
    const std::string mac = link_address(device);
    if (mac.empty()) {
        trace(Level::Error, "host",
              "neither wan.mac nor WAN_ADDR is set, and %s has no MAC address: the routed mode stays off",
              device.empty() ? "no device below iptv" : device.c_str());
        return;
    }
    trace(Level::Info, "host", "WAN_ADDR is not set: the MAC address of %s is taken, %s", device.c_str(), mac.c_str());
    setenv("WAN_ADDR", mac.c_str(), 1);
}

/* Once it was provided. */
std::string wan_address() {
    const char *address = std::getenv("WAN_ADDR");
    return address ? address : "";
}

/* What a script of the plug-in could not do, until the same one can. */
void note_script(Loop &loop, Model &model, const std::vector<std::string> &argv, int status, const std::string &said) {
    constexpr const char *path = "KeelHost.Script";
    std::string command = std::filesystem::path(argv.front()).filename();
    for (std::size_t i = 1; i < argv.size(); ++i)
        command += " " + argv[i];
    Timeline::instance().note(TimelineEvent::Kind::Rule, "", status == 0 ? "done" : "failed", command);
    if (status != 0) {
        const std::string error = command + ": status " + std::to_string(status) + (said.empty() ? "" : ", " + said);
        trace(Level::Error, "process", "%s", error.c_str());
        if (model.find(path))
            model.set(path, {{"LastError", error}, {"Since", static_cast<std::int64_t>(loop.wall_clock_s())}});
    } else if (model.text(path, "LastError").starts_with(command + ":")) {
        model.set(path, {{"LastError", std::string()}, {"Since", std::int64_t{0}}});
    }
}

/* Before anything of the host looks at them, and not before it is sure that model, settings and socket are right. */
void make_chains(const std::string &share) {
    std::string error;
    if (!set_up_chains(share + "/chains.sh", &error))
        throw std::runtime_error(error);
}

/* Everything in the order in which it is made; it goes in the reverse order. */
class Host {
public:
    Host(UvLoop &loop, const Options &options)
        : loop_(loop), model_(loop_), loaded_((model_.load_file(options.model), true)),
          box_settings_(model_, options.settings, !options.settings_given), graph_(model_),
          free_((Control::require_free(options.socket), true)), store_(loop_, model_, options.store),
          cleaned_((box_settings_.after_store(), drop_leftovers(model_), true)),
          control_(loop_, model_, options.socket, control_actions()), chains_((make_chains(options.share), true)),
          settings_(model_), import_(loop_, model_, settings_, "keelhost " KEEL_VERSION, &wan_address),
          history_(loop_, model_), tables_(loop_), kernel_(loop_, graph_, tables_), interface_state_(loop_, graph_),
          presence_(loop_, graph_, tables_), firewall_policy_(loop_, graph_),
          multicast_(loop_, graph_, options.igmpproxy, std::filesystem::path(options.socket).parent_path()),
          lan_port_(
              loop_, tables_, model_.text(lan_server_path, "Interface"),
              [this](const std::uint8_t *data, std::size_t size) { lan_server_.received(data, size); },
              [this](std::uint32_t address, const HardwareAddress &owner) {
                  lan_server_.address_used(address, owner);
              }),
          lan_server_(loop_, model_, lan_port_),
          wan_clients_(loop_, graph_, options.udhcpc, options.share + "/udhcpc-report.sh",
                       {options.socket, options.store, options.store + "-wal", options.store + "-shm"}),
          wan_troubles_(loop_, model_), stream_rates_(loop_, model_),
          runner_(loop_, [this](const std::vector<std::string> &argv, int status,
                                const std::string &said) { note_script(loop_, model_, argv, status, said); }),
          firewall_check_(std::make_unique<FirewallCheck>(
              loop_, graph_, options.share + "/chains.sh", std::filesystem::path(options.socket).parent_path(),
              [this](std::uint32_t address) { lan_server_.report_lease_with(address); })) {
        drop_stray_routes(graph_);
        host_attach(loop_, graph_, runner_);
        provide_wan_address(graph_, box_settings_.wan_mac());
    }

    void reload() { box_settings_.reload(); }
    /* What is taken away from here on is to go. */
    void end() { firewall_check_.reset(); }

    /* Tells the service manager once the LAN is served. */
    void tell_when_served(ServiceManager &manager) {
        const std::string lan = model_.text(lan_server_path, "Interface");
        const auto served = [&manager, lan] {
            manager.status("DHCP is served on " + lan);
            manager.ready();
        };
        if (lan_port_.is_open())
            return served();
        manager.status("waiting for " + lan);
        lan_port_.on_open(served);
    }

private:
    ControlActions control_actions() {
        return {[this] { return store_.flush(); }, [this](std::function<void()> done) { look(std::move(done)); },
                [this](const std::string &path) { return objection_to_deletion(model_, path); },
                [this] { return import_.text(); },
                [this](const std::string &text, ControlActions::Imported imported) {
                    import_.take(text, [imported = std::move(imported)](const Import::Answer &answer) {
                        imported(answer.errors, answer.told);
                    });
                }};
    }

    /* At what is not followed all the time. */
    void look(std::function<void()> done) {
        look_at_groups(graph_, tables_);
        if (firewall_check_)
            firewall_check_->count(std::move(done));
        else
            done();
    }

    UvLoop &loop_;
    Model model_;
    bool loaded_;
    BoxSettings box_settings_;
    InterfaceGraph graph_;
    bool free_; /* the socket, and so the store */
    Store store_;
    bool cleaned_;
    Control control_;
    bool chains_;
    Settings settings_;
    Import import_;
    History history_;
    KernelTables tables_;
    Kernel kernel_;
    InterfaceState interface_state_;
    Presence presence_;
    FirewallPolicy firewall_policy_;
    Multicast multicast_;
    PacketLanPort lan_port_;
    LanDhcpServer lan_server_;
    WanClients wan_clients_;
    WanTroubles wan_troubles_;
    StreamRates stream_rates_;
    UvProcessRunner runner_;
    std::unique_ptr<FirewallCheck> firewall_check_;
};

/* With everything that is made here gone again. */
int serve(const Options &options, UvLoop &loop, StopSignals &signals) {
    ServiceManager manager(loop);
    Host host(loop, options);
    std::string error;
    if (!plugin_load(options.plugin, &error)) {
        std::fprintf(stderr, "keelhost: the plug-in cannot be loaded: %s\n", error.c_str());
        host_detach();
        return 1;
    }
    trace(Level::Info, "host", "up");
    host.tell_when_served(manager);
    signals.on_reload([&] {
        manager.reloading();
        host.reload();
        manager.reloaded();
    });
    loop.run();
    signals.on_reload(nullptr);
    trace(Level::Info, "host", "stopping");
    manager.stopping();
    host.end();
    plugin_unload();
    loop.settle(settle_ms); /* what the plug-in has written last reaches kernel, clients and store */
    return 0;
}

int run(const Options &options) {
    const HostLock lock;
    if (!lock.refusal().empty()) {
        std::fprintf(stderr, "keelhost: %s\n", lock.refusal().c_str());
        return 2;
    }
    UvLoop loop;
    StopSignals signals(loop);
    const int status = serve(options, loop, signals);
    const auto killed = signals.killed();
    for (const std::string &command : killed)
        std::fprintf(stderr, "keelhost: what this was to undo may be left: %s\n", command.c_str());
    return killed.empty() ? status : 1;
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    options.share = default_place("../share/keel", "../../share");
    options.plugin = default_place("../lib/keel/zephyrin.so", "zephyrin.so");
    CLI::App app{"Runs the plug-in of a gateway's network manager on this machine.", "keelhost"};
    app.set_version_flag("--version", "keelhost " KEEL_VERSION);
    app.add_option("--model", options.model, "data-model file (default: gateway.json of the share folder)");
    auto *settings = app.add_option("--settings", options.settings, "what was set for this machine, if it is there");
    settings->capture_default_str();
    bool only_check = false;
    app.add_flag("--check", only_check, "say what is wrong with model, settings and machine, and start nothing");
    app.add_option("--store", options.store, "SQLite file of what survives")->capture_default_str();
    app.add_option("--socket", options.socket, "Unix socket for keelctl")->capture_default_str();
    app.add_option("--plugin", options.plugin, "the plug-in")->capture_default_str();
    app.add_option("--share", options.share, "folder of chains.sh and udhcpc-report.sh")->capture_default_str();
    app.add_option("--udhcpc", options.udhcpc, "the DHCP client program")->capture_default_str();
    app.add_option("--igmpproxy", options.igmpproxy, "the multicast daemon's program")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    options.settings_given = settings->count() > 0;
    if (options.model.empty())
        options.model = options.share + "/gateway.json";

    const bool has_settings = options.settings_given || std::filesystem::exists(options.settings);
    if (only_check)
        return check({options.model, has_settings ? options.settings : "", options.udhcpc, options.igmpproxy});

    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL); /* where a parent ignored it, no program's status would be told */
    try {
        return run(options);
    } catch (const BoxConfigError &mistakes) {
        std::fprintf(stderr, "%s\nkeelhost: %s is not used like this, and nothing is started\n", mistakes.what(),
                     options.settings.c_str());
        return 1;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "keelhost: %s\n", failure.what());
        return 1;
    }
}

/*
 * One run: a gateway through its lives, and all that is around it.
 */
#ifndef TESTS_SIMULATE_WORLD_H
#define TESTS_SIMULATE_WORLD_H

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/base/process_runner.h"
#include "host/dhcp/lan_server.h"
#include "host/gateway/interface_state.h"
#include "host/gateway/settings.h"
#include "host/model/store.h"
#include "host/sim/sim_disk.h"
#include "host/sim/sim_kernel.h"
#include "host/sim/sim_loop.h"
#include "host/sim/sim_operator.h"
#include "host/sim/sim_stb.h"
#include "tests/simulate/invariants.h"
#include "tests/simulate/plan.h"
#include "tests/simulate/table.h"

namespace keel {

/* An invariant that is broken, in words. */
class Violation : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* What an operator may send, and no gateway can use. */
constexpr const char *rubbish_mask = "255.0.255.0";
constexpr const char *rubbish_routes = "210a3c";
constexpr const char *rubbish_server = "0a1400";

class World {
public:
    World(std::uint64_t seed, const std::string &plugin, const std::string &model_file);
    World(const World &) = delete;
    World &operator=(const World &) = delete;
    ~World();

    /* Throws the first Violation. */
    void run(const Plan &plan);
    const Table &table() const { return table_; }
    /* The place of the step that is carried out. */
    std::size_t step() const { return step_; }
    std::uint64_t now_ms() const { return loop_.now_ms(); }

    /* Of every operator's, as SimOperator has them; to be set before the run. */
    std::function<void()> on_wan_message;
    std::function<std::uint64_t(std::uint64_t milliseconds)> vary_wan_pause;

private:
    /* From a start of the host to its end. */
    struct Life {
        Life(World &world, SimLoop &loop);

        Model model;
        std::unique_ptr<InterfaceGraph> graph;
        std::unique_ptr<Store> store;
        std::unique_ptr<Settings> settings;
        std::unique_ptr<SimKernel> kernel;
        std::unique_ptr<InterfaceState> interface_state;
        std::unique_ptr<SimOperator> wan;
        std::unique_ptr<LanDhcpServer> lan_server;
    };
    struct Scripts : ProcessRunner {
        bool run(const std::vector<std::string> &argv, OnExit on_exit) override;
        SimLoop *loop = nullptr;
    };

    void add_device(std::uint64_t number, const StbHabits &habits);
    void power_on();
    void power_off(bool killed);
    bool is_all_stored(bool killed) const;
    void after_turn(bool idle);
    Sight sight();
    std::uint64_t heard_for_ms(const SimStb &device) const;
    static std::map<std::string, std::string> stored_values(const Model &model);
    void look_at_leases();
    void look_at_answer(std::size_t device, const SimStb::Answer &answer);
    void set_line(const std::string &line, bool up);
    void set_present(const SimStb &device, bool present);
    void set(const std::string &path, const Values &values);

    void carry_out(const Step &step);
    void carry_out_on_device(const Step &step, SimStb &device);
    void carry_out_as_operator(const Step &step);
    void carry_out_as_person(const Step &step);
    void carry_out_on_ground(const Step &step);
    void make_well();
    bool is_settled(const SimStb &device) const;
    void calm(bool by_people);
    static const std::map<int, std::string> &sound_options();
    void renew_all();
    void look_at_ends();
    void tell_operator();
    bool is_held_with_another_mask(const std::string &address) const;
    std::vector<std::string> clients() const;
    std::vector<std::string> leases() const;

    std::string plugin_;
    std::string model_file_;
    SimLoop loop_;
    SimDisk disk_;
    SimSegment segment_{loop_};
    Scripts scripts_;
    Table table_;
    std::vector<std::unique_ptr<SimStb>> devices_;
    std::set<const SimStb *> moved_by_hand_; /* the server has been told something else than the device knows */
    std::map<const SimStb *, std::uint64_t> heard_ms_; /* when a device was heard to ask first that could be taken up */
    std::map<const SimStb *, bool> present_;           /* as the model has it */
    bool takes_up_ = false;                            /* the plug-in takes devices up */
    bool has_slot_ = false;                            /* and has a slot for one more */
    std::unique_ptr<Life> life_;
    const RoutedState *state_ = nullptr;
    bool loaded_ = false;

    /* The operator's, whoever asks. */
    bool online_ = true;
    std::uint64_t answer_ms_ = 10;
    std::uint64_t lease_s_ = 86400;
    std::string mask_ = "255.255.255.0";
    std::map<int, std::string> options_ = sound_options();
    std::map<std::string, std::string> address_book_;
    unsigned next_address_ = 0;
    unsigned leases_counted_ = 0;
    std::uint64_t leased_ms_ = 0;         /* the latest one */
    std::uint64_t leases_counted_ms_ = 0; /* since when they are counted */
    std::map<std::string, bool> lines_{{"eth1.20", true}, {"eth1.30", false}, {"eth1.10", true}};

    std::uint64_t clock_set_ms_ = 0;
    bool stored_by_hand_ = false;
    bool mono_switched_ = false;
    std::set<std::string> restored_;
    std::map<std::string, std::uint64_t> lease_ended_ms_; /* of a device's identifier, in this life of the gateway */
    std::uint64_t started_ms_ = 0;
    bool restarting_ = false;                                  /* no identity has been in force since the start */
    std::set<std::string> handed_on_;                          /* addresses of one WAN client to another */
    std::optional<std::map<std::string, std::string>> stored_; /* at the latest stop */
    std::string broken_;                                       /* found where nothing can be thrown */
    std::uint64_t seen_model_ = 0;
    std::uint64_t seen_rules_ = 0;
    std::size_t step_ = 0;
};

} // namespace keel

#endif

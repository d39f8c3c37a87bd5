/*
 * What must hold at every moment in which nothing is on its way, and what must have come about once all is well.
 */
#ifndef TESTS_SIMULATE_INVARIANTS_H
#define TESTS_SIMULATE_INVARIANTS_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/model/model.h"
#include "host/sim/sim_stb.h"
#include "tests/simulate/ground.h"
#include "tests/simulate/image.h"
#include "tests/simulate/status_view.h"

namespace keel {

/* What is looked at, and what cannot be asked of it because of what people or the ground have done. */
struct Sight {
    const Model &model;
    const RoutedState &state;
    const Ground &ground;
    std::set<std::string> running_clients;
    bool routed = false;                    /* by the settings */
    bool stored_by_hand = false;            /* somebody has deleted a stored identity */
    std::set<std::string> *restored;        /* identities of which the state stored is still that of an earlier life */
    const std::set<std::string> *handed_on; /* WAN addresses that the operator has given to another identity */
    bool restarting = false; /* no identity has been in force since the start: routes may stand from before */
};

/* The invariant that is broken, in words with what breaks it; "" when all hold. */
std::string broken_safety(const Sight &sight);
/* The same for a device that has had all that it needs for long. heard_for_ms: since when the server knows that it
 * asks, while it could be taken up all the time; 0 when it has not heard of it. */
std::string broken_liveness(const Sight &sight, const SimStb &device, std::uint64_t heard_for_ms);
/* The same for what a person is told of a device. */
std::string broken_view(const Sight &sight, const SimStb &device, const StatusView &view);
/* The same for the routes that the operator has sent. */
std::string broken_routes(const Sight &sight);
/* The same for what the operator leases, once all have renewed. */
std::string broken_terms(const Sight &sight, const std::string &mask, const std::map<int, std::string> &options);
/* The same for an answer that a device has just got. */
std::string broken_answer(const Sight &sight, const SimStb &device, const SimStb::Answer &answer);
bool any_in_force(const RoutedState &state);
bool has_free_slot(const RoutedState &state);
/* The identities that have one device, each with its identifier. */
std::map<std::string, std::string> only_devices_of(const RoutedState &state);
bool is_leased(const Model &model, const SimStb &device);
/* The rules that stand for one mapped device. */
std::vector<std::string> rules_of(const std::string &lan, const std::string &wan);

} // namespace keel

#endif

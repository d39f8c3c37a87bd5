/*
 * What happens in a run, step by step; drawn from a seed, and shortened when a failing run is looked into.
 */
#ifndef TESTS_SIMULATE_PLAN_H
#define TESTS_SIMULATE_PLAN_H

#include <cstdint>
#include <string>
#include <vector>

namespace keel {

enum class Deed {
    /* devices */
    SwitchOn,
    SwitchOff,
    Leave,
    Decline,
    RenewDevice,
    Unplug,
    Plug,
    /* the operator */
    Away,
    Back,
    Slow,
    Quick,
    ForgetLeases,
    RefuseOnce,
    NewAddress,
    NewMask,
    NewRoutes,
    NewServers,
    NewLeaseTime,
    GiveToAnother,
    RenewNow,
    /* the lines */
    LineDown,
    LineUp,
    Flap,
    LoseLineEvents,
    /* people */
    SetMode,
    SetEnable,
    SetInterface,
    SetMonoClient,
    SetLeaseTime,
    MoveAddress,
    DeleteLease,
    DeleteIdentity,
    FlushChains,
    SetClock,
    /* the ground */
    CommandFails,
    CommandHangs,
    AllocationFails,
    WriteFails,
    DiskFull,
    DiskMended,
    StoreDeleted,
    FilesDead,
    LanDead,
    LanAlive,
    Kill,
    Restart,
    /* everything is well for an hour and more, and must have become so in the gateway as well */
    Calm,
    CalmByPeople, /* the same after the service was switched off and on */
    count
};

const char *name_of(Deed deed);

struct Step {
    std::uint64_t at_ms;
    Deed deed;
    std::uint64_t subject; /* which device, client, line ...: taken modulo how many there are */
    std::uint64_t value;
};

using Plan = std::vector<Step>;

/* The groups of faults that can be asked for: "people", "operator", "line", "ground", "kill", "clock". */
const std::vector<std::string> &fault_groups();
/* Which group a deed is of; "" for what is no fault. */
std::string group_of(Deed deed);

Plan draw_plan(std::uint64_t seed, unsigned days, const std::vector<std::string> &groups);
std::string to_text(const Step &step);
/* A step from that text; throws for what is none. */
Step to_step(const std::string &text);

} // namespace keel

#endif

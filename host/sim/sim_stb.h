/*
 * Devices as they are: they ask in the habits of their makers, keep what they are leased for as long as they are told,
 * and come, go and are unplugged.
 */
#ifndef HOST_SIM_SIM_STB_H
#define HOST_SIM_SIM_STB_H

#include <functional>
#include <string>
#include <vector>

#include "host/sim/sim_lan.h"

namespace keel {

/* Of 64 bits, the same on every machine (splitmix64). */
class Chance {
public:
    explicit Chance(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next() {
        std::uint64_t mixed = state_ += 0x9e3779b97f4a7c15U;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9U;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebU;
        return mixed ^ (mixed >> 31);
    }
    /* 0 to below the limit, which is not 0. */
    std::uint64_t below(std::uint64_t limit) { return next() % limit; }
    bool one_in(std::uint64_t count) { return below(count) == 0; }

private:
    std::uint64_t state_;
};

struct StbHabits {
    enum class Tells { Always, Sometimes, InDiscoverAlone };

    std::string maker; /* for whoever reads of it */
    std::string vendor_class;
    Tells tells = Tells::Always;        /* the vendor class; every DISCOVER tells it */
    Bytes client_id;                    /* may be empty */
    std::vector<unsigned> pauses_s;     /* between its DISCOVERs; after the last one from the place named next */
    std::size_t pauses_repeat_from = 0; /* in pauses_s */
    bool remembers = false;             /* when it starts it first asks for the address it had */
    std::uint64_t spread_ms = 0;        /* by which it waits longer, by chance, before its first message */
};

class SimStb;

/* A LAN on which such devices are, besides the simple ones. */
class SimSegment : public SimLan {
public:
    explicit SimSegment(Loop &loop) : SimLan(loop), loop_(loop) {}

    void send(const Bytes &message, const DhcpDestination &destination) override;
    void probe(std::uint32_t address) override;
    std::string port_of(const HardwareAddress &device) override;
    /* While the server's socket is dead, nothing comes through. */
    bool dead = false;
    /* Called for what the server sends to a device that does not take it: it is off, unplugged, or has gone on. */
    std::function<void(const SimStb &device)> on_lost;

private:
    friend class SimStb;

    Loop &loop_;
    std::vector<SimStb *> stations_;
};

class SimStb {
public:
    struct Answer {
        DhcpType type;
        std::uint64_t at_ms;
        std::string address;
        std::uint32_t lease_s;
        std::string servers; /* options 42 and 72 in hexadecimal, with a space between */
    };

    SimStb(Loop &loop, SimSegment &segment, unsigned number, StbHabits habits, std::uint64_t seed);
    SimStb(const SimStb &) = delete;
    SimStb &operator=(const SimStb &) = delete;
    ~SimStb();

    void switch_on();
    void switch_off();
    /* Gives its lease back, then is switched off. */
    void leave();
    /* Has found its address in use, and asks anew. */
    void decline();
    void renew();
    /* Without its cable it goes on as if nobody answered; with it again it asks for its address. */
    void set_plugged(bool plugged);

    bool is_on() const { return state_ != State::Off; }
    bool is_plugged() const { return plugged_; }
    /* Whether it wants an answer: not while it is content with its lease. */
    bool is_asking() const { return is_on() && state_ != State::Bound; }
    const StbHabits &habits() const { return habits_; }
    std::string mac() const { return format_mac(hardware_.data()); }
    std::string id() const; /* the name of its lease */
    /* "" for none; what it uses until its lease ends. */
    const std::string &address() const { return address_; }
    const Answer &last_ack() const { return last_ack_; }
    /* How many messages it has sent. */
    std::uint64_t sent() const { return sent_; }

    std::function<void(const Answer &answer)> on_answer;
    std::function<void(const std::string &what)> on_sent;

private:
    friend class SimSegment;
    enum class State { Off, Selecting, Requesting, Rebooting, Bound, Renewing };

    void send(DhcpType type, const std::string &requested, const std::string &current);
    void after(std::uint64_t milliseconds, void (SimStb::*step)());
    void begin();
    void discover();
    void request();
    void ask_to_renew();
    /* Whether it is for what the device has asked last. */
    bool take(const Bytes &message);
    void bind(const Answer &answer);

    Loop &loop_;
    SimSegment &segment_;
    HardwareAddress hardware_;
    StbHabits habits_;
    Chance chance_;
    State state_ = State::Off;
    bool plugged_ = true;
    std::string address_;
    std::string remembered_;
    std::string offered_;
    Answer last_ack_{};
    std::size_t asked_ = 0; /* DISCOVERs in a row */
    unsigned tries_ = 0;    /* of a REQUEST */
    std::uint32_t xid_;
    std::uint64_t sent_ = 0;
    Loop::TimerId timer_ = 0;
};

} // namespace keel

#endif

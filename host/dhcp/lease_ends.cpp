#include "host/dhcp/lease_ends.h"

#include <algorithm>
#include <cstdlib>

namespace keel {

namespace {

constexpr std::uint64_t longest_wait_ms =
    std::uint64_t{24} * 3600 * 1000; /* for the end of a lease; then it is looked again */
constexpr std::uint64_t clock_look_ms = 60000;
/* By how much at least a lease may last longer than it is written, besides an eighth of its time: a device that asks
 * all the time is not written each time. After a start what is written counts: by then its device has been asking for
 * more of it, at half of its time and again, and at seven eighths it asks every server. */
constexpr std::uint64_t longest_unwritten_s = 30;
constexpr std::int64_t leap_s = 5;                   /* what is less is the two clocks' own */
constexpr std::uint64_t clock_is_set_s = 1577836800; /* a gateway without a clock of its own starts in 1970 */

/* Somebody else has set when a lease ends: the server always writes both. */
bool written_by_others(const Event &event) {
    return event.kind == Event::Kind::Changed && event.values.contains("Expires") && !event.values.contains("Written");
}

} // namespace

LeaseEnds::LeaseEnds(Loop &loop, Model &model, LeaseTable &leases) : loop_(loop), model_(model), leases_(leases) {
    for (const std::string &path : leases_.all())
        take_up(path);
    expire();
    lead_s_ = wall_clock_lead_s();
    follow_wall_clock();
}

LeaseEnds::~LeaseEnds() {
    loop_.cancel_timer(look_at_clock_);
    loop_.cancel_timer(expiry_);
}

void LeaseEnds::changed(const std::string &path, const Event &event) {
    if (leases_.end_of(path) && !written_by_others(event))
        return;
    take_up(path);
    follow_expiry();
}

void LeaseEnds::take_up(const std::string &path) {
    leases_.set_end(path, loop_.now_ms() + remaining_s(path) * 1000);
}

/* What is left of a lease that somebody else has put here: the store, an earlier run. */
std::uint64_t LeaseEnds::remaining_s(const std::string &path) const {
    const auto expires = static_cast<std::uint64_t>(model_.integer(path, "Expires"));
    const auto written = static_cast<std::uint64_t>(model_.integer(path, "Written"));
    const std::uint64_t now = loop_.wall_clock_s();
    if (written == 0)
        return expires > now ? expires - now : 0;
    /* A clock that was not set at one of the two times, or was set back since, tells nothing: rather too long than an
     * address that is given away while its device uses it. */
    const std::uint64_t since = written >= clock_is_set_s && now > written ? now - written : 0;
    return expires > written + since ? expires - written - since : 0;
}

void LeaseEnds::lasts(const std::string &path, std::uint64_t validity_s, Values with) {
    leases_.set_end(path, loop_.now_ms() + validity_s * 1000);
    const std::uint64_t now = loop_.wall_clock_s();
    const auto shown = static_cast<std::uint64_t>(model_.integer(path, "Expires"));
    const std::uint64_t unwritten_s = std::max(validity_s / 8, longest_unwritten_s);
    if (shown + unwritten_s <= now + validity_s || shown > now + validity_s) {
        with["Expires"] = static_cast<std::int64_t>(now + validity_s);
        with["Written"] = static_cast<std::int64_t>(now);
    }
    model_.set(path, with);
    follow_expiry();
}

void LeaseEnds::outlasts(const std::string &path, std::uint64_t validity_s) {
    leases_.set_end(path, std::max(leases_.end_of(path).value_or(0), loop_.now_ms() + validity_s * 1000));
    follow_expiry();
}

/* One timer, for the lease that ends first. */
void LeaseEnds::follow_expiry() {
    const auto first = leases_.first_end();
    const std::uint64_t now = loop_.now_ms();
    const std::uint64_t end_ms = first ? std::clamp(first->first, now, now + longest_wait_ms) + 1000 : 0;
    if (expiry_ != 0 && end_ms != 0 && expiry_ms_ <= end_ms)
        return; /* it looks again then */
    loop_.cancel_timer(expiry_);
    expiry_ = 0;
    if (end_ms == 0)
        return;
    expiry_ms_ = end_ms;
    expiry_ = loop_.start_timer(end_ms - now, [this] {
        expiry_ = 0;
        expire();
    });
}

void LeaseEnds::expire() {
    const std::uint64_t now = loop_.now_ms();
    for (auto first = leases_.first_end(); first && first->first <= now; first = leases_.first_end())
        model_.remove(first->second);
    follow_expiry();
}

std::int64_t LeaseEnds::wall_clock_lead_s() const {
    return static_cast<std::int64_t>(loop_.wall_clock_s()) - static_cast<std::int64_t>(loop_.now_ms() / 1000);
}

void LeaseEnds::follow_wall_clock() {
    look_at_clock_ = loop_.start_timer(clock_look_ms, [this] { follow_wall_clock(); });
    const std::int64_t lead_s = wall_clock_lead_s();
    if (std::abs(lead_s - lead_s_) < leap_s)
        return;
    lead_s_ = lead_s;
    const auto now = static_cast<std::int64_t>(loop_.wall_clock_s());
    for (const std::string &path : leases_.all())
        if (const auto end_ms = leases_.end_of(path)) {
            const std::uint64_t left_s = (*end_ms - std::min(*end_ms, loop_.now_ms())) / 1000;
            model_.set(path, {{"Expires", now + static_cast<std::int64_t>(left_s)}, {"Written", now}});
        }
}

} // namespace keel

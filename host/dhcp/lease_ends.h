/*
 * When the leases of the data model end.
 */
#ifndef HOST_DHCP_LEASE_ENDS_H
#define HOST_DHCP_LEASE_ENDS_H

#include <cstdint>
#include <string>

#include "host/base/loop.h"
#include "host/dhcp/lease_table.h"
#include "host/model/model.h"

namespace keel {

/* Deletes each lease when its time is up on the loop's clock. Leases that there are at the start are taken up for what
 * was left of them: "Expires" less "Written", when it was written, less the time since as far as the wall clock tells
 * it. From then on the wall clock ends no lease and prolongs none; once it was set, both are written anew within a
 * minute, since the next start would take the leap for time that has passed. */
class LeaseEnds {
public:
    LeaseEnds(Loop &loop, Model &model, LeaseTable &leases);
    LeaseEnds(const LeaseEnds &) = delete;
    LeaseEnds &operator=(const LeaseEnds &) = delete;
    ~LeaseEnds();

    /* From now on, for a lease that there is. Not every prolongation is written: a device that waits asks every few
     * seconds. What else is to be written of it goes with it. */
    void lasts(const std::string &path, std::uint64_t validity_s, Values with = {});
    /* The same for a while only, of a lease that its device does not have yet: nothing is written, and at a start it
     * counts as before. */
    void outlasts(const std::string &path, std::uint64_t validity_s);
    /* An event of a lease that there is; whoever else writes when it ends has the last word. */
    void changed(const std::string &path, const Event &event);

private:
    void take_up(const std::string &path);
    std::uint64_t remaining_s(const std::string &path) const;
    void follow_expiry();
    void expire();
    void follow_wall_clock();
    std::int64_t wall_clock_lead_s() const;

    Loop &loop_;
    Model &model_;
    LeaseTable &leases_;
    Loop::TimerId expiry_ = 0;
    std::uint64_t expiry_ms_ = 0; /* when it runs */
    Loop::TimerId look_at_clock_ = 0;
    std::int64_t lead_s_ = 0; /* of the wall clock over the loop's, by which the ends in the model are written */
};

} // namespace keel

#endif

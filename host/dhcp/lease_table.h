/*
 * What the LAN DHCP server must find at once about the leases of the data model, however many there are.
 */
#ifndef HOST_DHCP_LEASE_TABLE_H
#define HOST_DHCP_LEASE_TABLE_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/gateway/lease_facts.h"
#include "host/gateway/settings.h"
#include "host/model/model.h"

namespace keel {

struct LeasePlace {
    std::string pool;
    std::string rule; /* its number */
};

/* An index that every write to the model keeps up: who has an address, where a device's leases are. When a lease ends
 * is known here alone, on the loop's clock; "Expires" in the model is for people and for the next start. */
class LeaseTable {
public:
    /* The model must be loaded, and outlive the table. */
    explicit LeaseTable(Model &model);
    LeaseTable(const LeaseTable &) = delete;
    LeaseTable &operator=(const LeaseTable &) = delete;
    ~LeaseTable();

    /* Host order. */
    bool is_leased(std::uint32_t address) const;
    /* The path of a lease of that address; "" when there is none. */
    std::string lease_with(std::uint32_t address) const;
    /* The order in which addresses were given back: a later one has a higher number. 0 for one that never was. */
    std::uint64_t freed(std::uint32_t address) const;
    /* Those addresses that were given back, in that order, and no lease has now. First, with the number 0, those that
     * no device ever had, since the lease was not acknowledged. */
    const std::set<std::pair<std::uint64_t, std::uint32_t>> &unused() const { return unused_; }
    /* The leases of that name, in every pool: their paths and places. */
    std::vector<std::pair<std::string, LeasePlace>> leases_of(const std::string &id) const;
    /* All paths. */
    std::vector<std::string> all() const;

    /* Of a lease that there is; ms of the loop's clock. */
    void set_end(const std::string &path, std::uint64_t end_ms);
    std::optional<std::uint64_t> end_of(const std::string &path) const;
    /* The lease that ends first. */
    std::optional<std::pair<std::uint64_t, std::string>> first_end() const;

private:
    struct Lease {
        LeasePlace place;
        std::string id;
        std::uint32_t address = 0;
        bool acknowledged = false;
        std::uint64_t number = 0; /* of those that end at the same time the one that was added first goes first */
        std::optional<std::uint64_t> end_ms;
    };

    void add(const std::vector<std::string> &steps, const Values &values);
    void remove(const std::string &path);
    void set_address(Lease &lease, std::uint32_t address);
    void observe(const Event &event);
    static std::string path_of(const Lease &lease);

    Model &model_;
    std::unordered_map<std::string, Lease> leases_; /* by path; the others point into it */
    std::unordered_multimap<std::uint32_t, const Lease *> by_address_;
    std::unordered_multimap<std::string_view, const Lease *> by_id_;
    std::map<std::pair<std::uint64_t, std::uint64_t>, const Lease *> by_end_; /* its end and its number */
    std::unordered_map<std::uint32_t, std::uint64_t> freed_;
    std::set<std::pair<std::uint64_t, std::uint32_t>> unused_;
    std::uint64_t last_freed_ = 0;
    std::uint64_t last_number_ = 0;
};

} // namespace keel

#endif

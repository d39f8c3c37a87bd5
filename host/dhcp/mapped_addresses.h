/*
 * Which LAN addresses are mapped for which device, whether it has a lease now or not.
 */
#ifndef HOST_DHCP_MAPPED_ADDRESSES_H
#define HOST_DHCP_MAPPED_ADDRESSES_H

#include <cstdint>
#include <string>
#include <unordered_map>

#include "host/model/model.h"

namespace keel {

/* The name of a device (of its lease) as the plug-in's records have it: one of more than 35 characters is cut. */
std::string name_in_records(const std::string &device);
/* Whether an event is one of a device's record, "Keel.Zephyrin.ClientLease.<identity>.ServerLease.<device>". */
bool is_of_mapped_device(const Event &event);

/* The record of a device (by its name there) in another identity than that; "" when there is none. A device may be in
 * two while "MonoClient" is being changed. */
std::string record_in_another(const Model &model, const std::string &identity, const std::string &device);

/* An identity keeps its devices, with their LAN addresses, for two days after they went away, and over a restart. What
 * another device sent from such an address would leave with the WAN address of the one that is away. An index of
 * "Keel.Zephyrin.ClientLease.*.ServerLease", kept up by every write to the model. */
class MappedAddresses {
public:
    /* The model must be loaded, and outlive it. */
    explicit MappedAddresses(Model &model);
    MappedAddresses(const MappedAddresses &) = delete;
    MappedAddresses &operator=(const MappedAddresses &) = delete;
    ~MappedAddresses();

    /* The address of the device (the name of its lease), host order; 0 when none is mapped for it. */
    std::uint32_t of(const std::string &device) const;
    /* Whether the address is mapped for a device other than this one. */
    bool is_anothers(std::uint32_t address, const std::string &device) const;

private:
    void observe(const Event &event);
    void set(const std::string &device, const std::string &address);

    Model &model_;
    std::unordered_map<std::string, std::uint32_t> by_device_;
    std::unordered_multimap<std::uint32_t, std::string> by_address_;
};

} // namespace keel

#endif

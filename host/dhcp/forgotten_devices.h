/*
 * Devices with a lease whose identity is gone.
 */
#ifndef HOST_DHCP_FORGOTTEN_DEVICES_H
#define HOST_DHCP_FORGOTTEN_DEVICES_H

#include <string>

#include "host/model/model.h"

namespace keel {

/* An identity that several devices share goes when the last one of them that is there loses its lease. One that is away
 * then keeps its lease; it would be answered from it when it comes back, and have no way to the operator for as long as
 * it renews. So such a lease is put on hold, as one from before a hold is, and its device is reported anew when it
 * asks. Leases of pools without holds stay as they are. */
class ForgottenDevices {
public:
    /* The model must be loaded, and outlive it. */
    explicit ForgottenDevices(Model &model);
    ForgottenDevices(const ForgottenDevices &) = delete;
    ForgottenDevices &operator=(const ForgottenDevices &) = delete;
    ~ForgottenDevices();

private:
    void hold(const std::string &device);

    Model &model_;
    Model::WatchId watch_;
};

} // namespace keel

#endif

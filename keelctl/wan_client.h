/*
 * The WAN client of an identity, and what the operator has leased to it.
 */
#ifndef KEELCTL_WAN_CLIENT_H
#define KEELCTL_WAN_CLIENT_H

#include <cstdint>
#include <string>

#include "keelctl/gateway.h"

namespace keelctl {

struct WanClient {
    std::string interface;
    Json wan;      /* its Weft.Intf */
    Json exchange; /* its DHCPv4.Client */
    std::string client_id;
    std::string state;   /* of the client */
    std::string status;  /* of the identity */
    std::string address; /* "" for none */
    std::int64_t next_try = 0;

    WanClient(Gateway &gateway, const Json &identity);

    bool is_bound() const { return state == "Bound" || state == "Renewing" || state == "Rebinding"; }
    /* What is so: an identity may be stored as connected, with an address, from before a restart. */
    std::string status_now() const { return is_bound() || status != "Connected" ? status : "Unconnected"; }
    std::string address_now() const { return is_bound() || status == "Internal" ? address : ""; }
};

} // namespace keelctl

#endif

/*
 * The two pools of the LAN DHCP server that serve the IPTV devices: lease times, holds, options 42 and 72.
 */
#ifndef ROUTED_DHCP_SERVER_H
#define ROUTED_DHCP_SERVER_H

#include "frame/helpers.h"

enum { dhcp_pool_itf = 0, dhcp_pool_stb = 1, dhcp_pools = 2 };

/* The path of a pool, constant; null for 2 and above. */
ZEP_EXPORT const char *zep_dhcp_server_pool_path_get(unsigned index);
/* Lease time (s) and hold of both pools: 1 when both accepted; stops at the first refusal. */
ZEP_EXPORT int zep_dhcp_server_pool_set(uint32_t leaseTime, uint8_t onHold);
/* Switches options 42 and 72 of both pools: 1 when all four accepted; stops at the first refusal. */
ZEP_EXPORT int zep_dhcp_server_options_ntp_www_set_enable(uint8_t enable);
/* Writes the options' data (hexadecimal) of both pools, each where a text is given. */
ZEP_EXPORT void zep_dhcp_server_options_ntp_www_set_value(const char *ntp, const char *www);
/* Releases the hold of one lease, given by its object path: nonzero when accepted. */
ZEP_EXPORT int zep_dhcp_server_lease_offer(const char *leasePath);

#endif

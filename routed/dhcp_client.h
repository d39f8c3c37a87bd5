/*
 * The WAN DHCP client interfaces, one per identity, stacked between "iptv" and the network device below it. The
 * protocol runs in the host; here the interface is made, started, stopped, read and deleted.
 */
#ifndef ROUTED_DHCP_CLIENT_H
#define ROUTED_DHCP_CLIENT_H

#include "frame/helpers.h"

/* Makes a stopped client of that name; clientId is its option 61 (hexadecimal text) or null. 0 for a null name, else 1:
 * what fails on the way is not told. */
ZEP_EXPORT int zep_dhcp_client_create(const char *name, const char *clientId);
/* Nonzero when accepted; 0 for a null name (traced). */
ZEP_EXPORT int zep_dhcp_client_start_stop(const char *name, uint8_t enable);
/* The text of a received option, borrowed, or null. */
ZEP_EXPORT const char *zep_dhcp_client_get_reqoption(const char *name, uint16_t option);
/* What the client obtained, from its interface object, borrowed, or null (traced for a null object). */
ZEP_EXPORT const char *zep_dhcp_client_get_ipaddress(const object_t *object);
ZEP_EXPORT const char *zep_dhcp_client_get_subnetmask(const object_t *object);
/* Asks for the deletion of the interface: 1, or 0 for a null name (traced). */
ZEP_EXPORT int zep_dhcp_client_delete(const char *name);

#endif

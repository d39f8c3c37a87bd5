/*
 * The iptables rules of the routed mode: the plug-in's chains on the IPTV interface, and the one-to-one mapping of each
 * device's LAN address onto its WAN address. The chains exist beforehand.
 *
 * Every operation returns 1 when all its commands succeeded, 0 otherwise or when an argument was refused (traced). A
 * command that fails does not stop the others, and nothing is rolled back.
 */
#ifndef ROUTED_FIREWALL_H
#define ROUTED_FIREWALL_H

#include "frame/helpers.h"

/* Adds the two default rules: multicast and limited broadcast are accepted. */
ZEP_EXPORT int zep_firewall_static_chain_default(void);
/* Empties the plug-in's chains. */
ZEP_EXPORT int zep_firewall_static_chain_flush(void);
/* Hook the chains to an interface, or unhook them; op is 'A' or 'D'. */
ZEP_EXPORT int zep_firewall_static_chain_append(const char *intf);
ZEP_EXPORT int zep_firewall_static_chain_delete(const char *intf);
ZEP_EXPORT int zep_firewall_static_chain_append_delete(const char *intf, char op);
/* Add or remove the mapping between a LAN and a WAN address (dotted IPv4); op is 'A' or 'D'. */
ZEP_EXPORT int zep_firewall_static_port_mapping_append(const char *lanip, const char *wanip);
ZEP_EXPORT int zep_firewall_static_port_mapping_delete(const char *lanip, const char *wanip);
ZEP_EXPORT int zep_firewall_static_port_mapping_append_delete(const char *lanip, const char *wanip, char op);

#endif

/*
 * The firewall in the simplified modes: forwarding rules for each STB on the LAN and for the Internet-side interface,
 * written by a script; in the routed mode the IPTV-to-LAN policy alone.
 */
#ifndef MODULES_FIREWALL_H
#define MODULES_FIREWALL_H

#include "frame/module_util.h"
#include "platform/roster.h"

enum { cur_intf_size = 256 };

struct StbItem;

/* The data interface for which the main rules were last added; empty when none. */
ZEP_EXPORT char cur_intf[cur_intf_size];

ZEP_EXPORT int zep_firewall_start(void);
ZEP_EXPORT void zep_firewall_stop(void);
ZEP_EXPORT void zep_firewall_init(ServiceConfig *config);
/* Leaves the rules in force. */
ZEP_EXPORT void zep_firewall_cleanup(void);
/* Writes the policy's "ReverseChain"; null does nothing. */
ZEP_EXPORT void zep_firewall_setPolicy(const char *value);
/* Starts the script to add or delete the rules of the STB with that address (dotted IPv4). */
ZEP_EXPORT void zep_firewall_ConfigureForwardService(const char *address, bool add);
/* Device-map callback: an STB starts (action 0) or stops (action 2) to be on the LAN. One that starts waits in the list
 * while the script is busy. */
ZEP_EXPORT void zep_firewall_updateSTBList(roster_query_t *query, const char *key, const variant_t *device, int action);
/* Takes an STB that arrived into the list, without its rules yet: its item, or null (traced) without memory. */
ZEP_EXPORT StbItem *zep_firewall_addSTBList(const char *key, const char *address);
/* A run for an STB has ended: the next one that waits gets its turn. Always true. */
ZEP_EXPORT bool zep_set_firewall_process_exit_handler(process_t *process);

/* Result handler of the query on the data interface: result is its name. */
void callback_intf(const variant_t *result, void *data);

#endif

/*
 * IPv4 addresses and routes on the IPTV interface, as instances of the network model, and the list of the routes in
 * force (the Zephyrin_IPRoute list).
 *
 * Route instances of the plug-in are named "zep_" and a number; those of others are never touched. Addresses and masks
 * are dotted texts. What is pushed reports its own outcome; nothing here waits for it.
 */
#ifndef ROUTED_IP_ROUTE_H
#define ROUTED_IP_ROUTE_H

#include "frame/helpers.h"

/* One route in force. */
struct Route {
    variant_map_t params;      /* "Destination", "PrefixLength", "Router" */
    request_t *status_request; /* watch on the "Status" of its instance, or null */
    uint8_t status_error;      /* 1 when that last read "error" */
    llist_iterator_t link;
};

/* Replaces the records of the list by those of a route list, in order. */
ZEP_EXPORT void zep_ipv4_route_copyList(llist_t *list, const variant_t *source);
/* Releases every record of the list. */
ZEP_EXPORT void zep_ipv4_route_cleanupList(llist_t *list);
/* Likewise, without a trace: for records of which no interface ever had the routes. */
void ip_route_release(llist_t *list);
/* Creates the instance zep_{n}; its path, newly allocated, or null for an incomplete route (traced). */
ZEP_EXPORT char *zep_ipv4_route_add(const char *intf, const Route *route, int n);
/* Deletes the plug-in's route instances. */
ZEP_EXPORT void zep_ipv4_route_flush(const char *intf);
/* Adds an address with its mask's prefix length, unless it is there with that length. */
ZEP_EXPORT void zep_ipv4_addr_add(const char *intf, const char *address, const char *mask);
/* Deletes an address if it is there with its mask's prefix length. */
ZEP_EXPORT void zep_ipv4_addr_del(const char *intf, const char *address, const char *mask);
/* Deletes every IPv4 address of the interface, whoever made it. */
ZEP_EXPORT void zep_ipv4_addr_flush(const char *intf);
/* The leading one bits of a mask, 1 to 32; 0 for an invalid one. */
ZEP_EXPORT uint8_t zep_ipv4_mask_to_prefixlen(const char *mask);
/* The path of the first instance of an address, newly allocated, or null; its prefix length goes to prefixOut. */
ZEP_EXPORT char *zep_ipv4_addr_find(const char *intf, const char *address, uint8_t *prefixOut);

#endif

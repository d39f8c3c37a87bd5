/*
 * The Weft network-model client: the graph of network interfaces with their flags, parameters, MIBs and DHCP options.
 *
 * The graph is directed: an upper interface is linked over a lower one. Every search starts at one interface and takes
 * a traversal; "first" means first in breadth-first order, links in the order in which they were made.
 *
 * A flag expression is a text of flag names joined by "&&", "||", "!" and parentheses; an empty text or null is no
 * condition. A malformed one is refused with a trace: it matches nothing.
 */
#ifndef PLATFORM_WEFT_H
#define PLATFORM_WEFT_H

#include "platform/hull.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct weft_query weft_query_t;

/* A traversal is passed as its text. */
typedef const char *weft_traverse_t;
#define weft_traverse_this "this"
#define weft_traverse_down "down"                     /* the start interface and all below it */
#define weft_traverse_down_exclusive "down exclusive" /* all below it */
#define weft_traverse_up "up"
#define weft_traverse_one_level_down "one level down" /* directly below, itself excluded */
#define weft_traverse_one_level_up "one level up"
#define weft_traverse_all "all" /* every interface of the model, the start interface first */

/* Counted: the client is up until as many cleanups as initialisations were made; the last one closes what queries are
 * still open. False on failure, which is not counted. */
bool weft_client_initialize(hull_t *hull, sysbus_t *bus);
void weft_client_cleanup(void);

/* ---------------------------------------------------------------------------------------------------- queries */

/* Called once the query has a result, on a later turn of the loop, and again after every change of it, each time with
 * the complete current result, borrowed while the handler runs. It is never called while another handler runs, and not
 * any more after weft_closeQuery(). */
typedef void (*weft_handler_t)(const variant_t *result, void *userData);

/* Each opens a query for a subscriber (a name for traces) and returns its handle, or null when it cannot be opened
 * (client not initialised, null interface or handler, unknown traversal, malformed flags); the reason is traced. The
 * start interface need not exist: until it does, the result is empty. */
/* Result: a list of interface names. */
weft_query_t *weft_openQuery_getIntfs(const char *intf, const char *subscriber, const char *flags,
                                      weft_traverse_t traversal, weft_handler_t handler, void *userData);
/* Result: a text, the first matching interface, "" for none. */
weft_query_t *weft_openQuery_luckyIntf(const char *intf, const char *subscriber, const char *flags,
                                       weft_traverse_t traversal, weft_handler_t handler, void *userData);
/* Result: a text, the first address found, "" for none; a disabled address does not count. Family is "ipv4". */
weft_query_t *weft_openQuery_luckyAddrAddress(const char *intf, const char *subscriber, const char *family,
                                              weft_traverse_t traversal, weft_handler_t handler, void *userData);
/* Result: a boolean, true when an interface reached that satisfies the flags carries "up". */
weft_query_t *weft_openQuery_isUp(const char *intf, const char *subscriber, const char *flags,
                                  weft_traverse_t traversal, weft_handler_t handler, void *userData);
/* Null is accepted. Allowed inside the query's own handler. */
void weft_closeQuery(weft_query_t *query);

/* ------------------------------------------------------------------------------------------ synchronous calls */

/* The name of the first match, newly allocated (free()), or null. */
char *weft_luckyIntf(const char *intf, const char *flags, weft_traverse_t traversal);
/* Whether an interface reached that satisfies the condition carries all of the flags (joined by blanks). */
bool weft_hasFlag(const char *intf, const char *flag, const char *condition, weft_traverse_t traversal);
/* Set or clear flags (joined by blanks) on every interface reached that satisfies the condition. */
void weft_setFlag(const char *intf, const char *flags, const char *condition, weft_traverse_t traversal);
void weft_clearFlag(const char *intf, const char *flags, const char *condition, weft_traverse_t traversal);
/* Write a parameter of the first, or of every, interface reached that satisfies the condition. The parameter may be a
 * path below the interface ("IPv4Addr.iptv.Enable"); an interface without that object is passed over. A refusal is
 * traced. */
void weft_setFirstParameter(const char *intf, const char *parameter, const variant_t *value, const char *condition,
                            weft_traverse_t traversal);
void weft_setParameters(const char *intf, const char *parameter, const variant_t *value, const char *condition,
                        weft_traverse_t traversal);
/* Link the upper interface over the lower one, or undo it. Linking twice is one link. A missing interface and a link
 * that would close a loop are traced and ignored, and so is a null name. A deleted interface takes the links to it
 * along. */
void weft_linkIntfs(const char *upper, const char *lower);
void weft_unlinkIntfs(const char *upper, const char *lower);
/* A newly allocated map {MIB name -> {interface name -> map of values}} of the named MIBs (joined by blanks) of the
 * interfaces reached; an interface without the MIB has no entry, a MIB that none has no entry either. Release it with
 * variant_map_cleanup() and free(). Null for an unknown interface. */
variant_map_t *weft_getMIBs(const char *intf, const char *mibs, const char *condition, weft_traverse_t traversal);
/* Writes the entries of such a map that name the interface; it gets a MIB that it did not have. A refusal is traced. */
void weft_setMIBs(const char *intf, const variant_map_t *map);
/* The parsed value of a received DHCP option, newly allocated (variant_cleanup() and free()), or null when it was not
 * received or is malformed, which is traced. Kind is "req". Option 121 (RFC 3442) is a list of maps with "Destination"
 * (text), "PrefixLength" (unsigned 8-bit) and "Router" (text), in the order received, and an empty one of a client with
 * a lease that came without: it has no routes, whatever an earlier lease had. Any other is its text. */
variant_t *weft_getDHCPOption(const char *intf, const char *kind, uint16_t option, weft_traverse_t traversal);

#ifdef __cplusplus
}
#endif

#endif

/*
 * The roster device-map client: which devices of the LAN match an expression.
 */
#ifndef PLATFORM_ROSTER_H
#define PLATFORM_ROSTER_H

#include "platform/hull.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct roster_query roster_query_t;

enum { roster_action_match = 0, roster_action_change = 1, roster_action_unmatch = 2 };

/* Called on the loop, never inside roster_query_open(), with the device's key and a map of its data (borrowed): its
 * parameters by name, and "IPv4Address", a list of maps with "Address". The devices that match already are told after
 * the opening; then each one that starts to match, changes while it matches, or stops matching. What comes back to what
 * was told last within one turn is not told. */
typedef void (*roster_handler_t)(roster_query_t *query, const char *key, const variant_t *device, int action);

/* May be called more than once. False on failure. */
bool roster_initialize(hull_t *hull, sysbus_t *bus);
/* Opens a query with an expression such as "lan and stb and .Active==true": tags, ".Parameter==value", "and", "or",
 * "not" and parentheses; a value may stand in quotes. Null for a malformed expression, which is traced. */
roster_query_t *roster_query_open(const char *expression, const char *name, roster_handler_t handler);
/* Null is accepted. Allowed inside the query's own handler. */
void roster_query_close(roster_query_t *query);

#ifdef __cplusplus
}
#endif

#endif

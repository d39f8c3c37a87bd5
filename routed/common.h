/*
 * The routed mode's own state in the settings object "Keel.Zephyrin": the classless static routes, the NTP and WWW
 * servers and the status.
 *
 * A route list is a variant list of maps with "Destination" (text), "PrefixLength" (unsigned 8-bit) and "Router"
 * (text). Server values are DHCP option data as hexadecimal text, at most 8 characters; buffers for them have 9.
 */
#ifndef ROUTED_COMMON_H
#define ROUTED_COMMON_H

#include "frame/helpers.h"

enum { server_value_size = 9 };

/* Appends the stored routes to an initialised list: 1, or 0 for null or when some could not be read. */
ZEP_EXPORT int zep_common_get_zephyrin_static_routes(variant_t *list);
/* Stores one more route; the result of the push. */
ZEP_EXPORT int zep_common_add_zephyrin_static_route(const variant_map_t *map);
/* Deletes every stored route. */
ZEP_EXPORT void zep_common_flush_zephyrin_static_routes(void);
/* Replaces the stored routes by those of the list. */
ZEP_EXPORT void zep_common_set_zephyrin_static_routes(const variant_t *list);
/* Fetches the values for which a buffer is given. */
ZEP_EXPORT void zep_common_get_zephyrin_ntpwwwserver(char *ntp, char *www);
/* Writes the values that are given: 1 when at least one was. */
ZEP_EXPORT int zep_common_set_zephyrin_ntpwwwserver(const char *ntp, const char *www);
/* Writes the status: 0 "Enabled", 1 "Disabled", 2 "Error"; no other value is allowed. */
ZEP_EXPORT void zep_common_set_zephyrin_status(uint32_t status);

#endif

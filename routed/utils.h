/*
 * The command runner and the form of the WAN clients' identifiers.
 */
#ifndef ROUTED_UTILS_H
#define ROUTED_UTILS_H

#include "frame/helpers.h"

/* Runs a shell command line and waits for it: 1 when it ended with status 0, else 0 (traced). */
ZEP_EXPORT int zep_utils_system(const char *command);
/* The option 61 text "01" + twelve lower-case digits of the MAC address plus the offset (modulo 2^48). A text of
 * another length than 17 counts as 00:00:00:00:00:00. The result is static: valid until the next call. */
ZEP_EXPORT const char *zep_utils_format_option61(const char *mac, int32_t offset);

#endif

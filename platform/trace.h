/*
 * Trace calls of the host. The wrapper around each message is the caller's (frame/trace.h in the plug-in).
 */
#ifndef PLATFORM_TRACE_H
#define PLATFORM_TRACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { mast_level_error = 100, mast_level_warning = 200, mast_level_info = 400 };

/* Writes one line at a level. The format is printf's. */
void mastTrace(uint32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));
/* The same, in a zone by which the host filters and shows traces. */
void mastTraceZ(uint32_t level, const char *zone, const char *format, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif

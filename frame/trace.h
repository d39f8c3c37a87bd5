/*
 * The one way in which the plug-in traces: the host's trace call with the wrapper that every line carries.
 */
#ifndef FRAME_TRACE_H
#define FRAME_TRACE_H

#include "platform/trace.h"

/* Colour, zone, colour, colour, level letter, colour, colour, message, colour, colour, function, file, line, colour.
 * The colours are empty: the host's log is read by programs too. */
#define ZEP_TRACE(level, letter, zone, format, ...)                                                                    \
    mastTraceZ(level, zone, "%s%-7.7s%s - %s[%s]%s%s" format "%s - %s(%s@%s:%d)%s", "", zone, "", "", letter, "",      \
               "" __VA_OPT__(, ) __VA_ARGS__, "", "", __func__, __FILE_NAME__, __LINE__, "")

#define ZEP_ERROR(zone, format, ...) ZEP_TRACE(mast_level_error, "x", zone, format __VA_OPT__(, ) __VA_ARGS__)
#define ZEP_WARNING(zone, format, ...) ZEP_TRACE(mast_level_warning, "!", zone, format __VA_OPT__(, ) __VA_ARGS__)
#define ZEP_INFO(zone, format, ...) ZEP_TRACE(mast_level_info, "i", zone, format __VA_OPT__(, ) __VA_ARGS__)

#endif

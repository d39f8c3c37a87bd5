/*
 * A trace as a line for people, on stderr and in keelctl alike.
 */
#ifndef HOST_BASE_TRACE_FORM_H
#define HOST_BASE_TRACE_FORM_H

#include <cstdint>
#include <string>

namespace keel {

/* The text without the zone and the level with which the plug-in begins its own: "routed  - [i]". */
std::string without_head(const std::string &zone, const std::string &text);

/* "2026-03-01 12:05:09.120 i routed: ...", in local time; the letter is x for an error, ! for a warning, i for
 * information; level as in platform/trace.h. */
std::string format_trace(std::uint64_t wall_clock_ms, std::uint32_t level, const std::string &zone,
                         const std::string &text);

} // namespace keel

#endif

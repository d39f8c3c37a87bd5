/*
 * The plug-in's trace calls.
 */
#include "platform/trace.h"

#include <cstdarg>
#include <string>
#include <utility>

#include "host/base/trace.h"

namespace {

void write_trace(uint32_t level, const char *zone, const char *format, va_list arguments) {
    const keel::Level known = level <= mast_level_error     ? keel::Level::Error
                              : level <= mast_level_warning ? keel::Level::Warning
                                                            : keel::Level::Info;
    std::string text = keel::format_text(format, arguments);
    if (text.ends_with('\n'))
        text.pop_back();
    keel::TraceLog::instance().write(known, zone, std::move(text));
}

} // namespace

extern "C" {

void mastTrace(uint32_t level, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_trace(level, "", format, arguments);
    va_end(arguments);
}

void mastTraceZ(uint32_t level, const char *zone, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_trace(level, zone ? zone : "", format, arguments);
    va_end(arguments);
}
}

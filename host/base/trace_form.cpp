#include "host/base/trace_form.h"

#include <cstdio>
#include <ctime>

namespace keel {

std::string without_head(const std::string &zone, const std::string &text) {
    char head[16];
    const int length = std::snprintf(head, sizeof head, "%-7.7s - [", zone.c_str());
    const auto size = static_cast<std::size_t>(length);
    const bool has = text.starts_with(head) && text.size() >= size + 2 && text[size + 1] == ']';
    return has ? text.substr(size + 2) : text;
}

std::string format_trace(std::uint64_t wall_clock_ms, std::uint32_t level, const std::string &zone,
                         const std::string &text) {
    const auto seconds = static_cast<std::time_t>(wall_clock_ms / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    char time[32];
    std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S", &local);
    char head[64];
    std::snprintf(head, sizeof head, "%s.%03u %c ", time, static_cast<unsigned>(wall_clock_ms % 1000),
                  level <= 100   ? 'x'
                  : level <= 200 ? '!'
                                 : 'i');
    return head + zone + (zone.empty() ? "" : ": ") + without_head(zone, text);
}

} // namespace keel

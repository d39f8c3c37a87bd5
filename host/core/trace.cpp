#include "host/core/trace.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <vector>

namespace keel {

TraceLog &TraceLog::instance() {
    static TraceLog log;
    return log;
}

void TraceLog::write(Level level, std::string zone, std::string text) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto wall_clock_ms =
        static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
    lines_.push_back({++written_, wall_clock_ms, level, std::move(zone), std::move(text)});
    if (lines_.size() > max_lines)
        lines_.pop_front();
    const TraceLine &line = lines_.back();
    if (print_) {
        tm local{};
        localtime_r(&now.tv_sec, &local);
        const char letter = level == Level::Error ? 'x' : level == Level::Warning ? '!' : 'i';
        std::fprintf(stderr, "%02d:%02d:%02d.%03ld %c %s%s%s\n", local.tm_hour, local.tm_min, local.tm_sec,
                     now.tv_nsec / 1000000, letter, line.zone.c_str(), line.zone.empty() ? "" : ": ",
                     line.text.c_str());
    }
    const auto followers = followers_; /* a follower may end itself */
    for (const auto &[id, follower] : followers)
        follower(line);
}

std::uint64_t TraceLog::follow(Follower follower) {
    followers_[++last_follower_] = std::move(follower);
    return last_follower_;
}

void TraceLog::unfollow(std::uint64_t id) {
    followers_.erase(id);
}

void trace(Level level, const char *zone, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (length > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    TraceLog::instance().write(level, zone, std::move(text));
}

} // namespace keel

#include "host/base/trace.h"

#include <algorithm>
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
    if (followers_.empty())
        return;
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

std::string format_text(const char *format, va_list arguments) {
    char buffer[512]; /* holds nearly every line, so that most are formatted once */
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    std::string text(buffer, length > 0 ? std::min(static_cast<std::size_t>(length), sizeof buffer - 1) : 0);
    if (length >= static_cast<int>(sizeof buffer)) {
        text.resize(static_cast<std::size_t>(length));
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    return text;
}

void trace(Level level, const char *zone, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    TraceLog::instance().write(level, zone, format_text(format, arguments));
    va_end(arguments);
}

} // namespace keel

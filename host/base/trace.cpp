#include "host/base/trace.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "host/base/trace_form.h"

namespace keel {

namespace {

/* It names the file that the journal reads from; a stderr that somebody has led elsewhere since is another one. */
bool stderr_is_the_journal() {
    const char *journal = std::getenv("JOURNAL_STREAM");
    unsigned long long device = 0;
    unsigned long long inode = 0;
    struct stat own {};
    return journal && std::sscanf(journal, "%llu:%llu", &device, &inode) == 2 && fstat(STDERR_FILENO, &own) == 0 &&
           own.st_dev == device && own.st_ino == inode;
}

} // namespace

TraceLog::TraceLog() : journal_(stderr_is_the_journal() ? std::make_unique<Journal>() : nullptr) {}

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
    if (print_)
        print(line);
    if (followers_.empty())
        return;
    const auto followers = followers_; /* a follower may end itself */
    for (const auto &[id, follower] : followers)
        follower(line);
}

void TraceLog::print(const TraceLine &line) const {
    if (!journal_) {
        const auto level = static_cast<std::uint32_t>(line.level);
        std::fprintf(stderr, "%s\n", format_trace(line.wall_clock_ms, level, line.zone, line.text).c_str());
        return;
    }
    const int priority = line.level == Level::Error ? 3 : line.level == Level::Warning ? 4 : 6;
    const std::string text = without_head(line.zone, line.text);
    if (!journal_->write(priority, line.zone, text))
        std::fprintf(stderr, "<%d>%s%s%s\n", priority, line.zone.c_str(), line.zone.empty() ? "" : ": ", text.c_str());
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

/*
 * The host's trace log: the plug-in's traces and the host's own, in the order in which they came.
 */
#ifndef HOST_BASE_TRACE_H
#define HOST_BASE_TRACE_H

#include <cstdarg>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "host/base/journal.h"

namespace keel {

enum class Level : std::uint32_t { Error = 100, Warning = 200, Info = 400 };

struct TraceLine {
    std::uint64_t number; /* counted from 1 */
    std::uint64_t wall_clock_ms;
    Level level;
    std::string zone;
    std::string text;
};

/* Keeps the latest lines, prints each to stderr unless told not to, and hands each to its followers. Where stderr is
 * the journal, a line becomes an entry of it with fields; one that the journal does not take so goes to stderr, and
 * begins with its priority ("<3>") in the place of the time, which the journal has itself. */
class TraceLog {
public:
    using Follower = std::function<void(const TraceLine &)>;

    static TraceLog &instance();

    void write(Level level, std::string zone, std::string text);
    const std::deque<TraceLine> &recent() const { return lines_; }
    void clear() { lines_.clear(); }
    /* Followers must not write traces themselves. */
    std::uint64_t follow(Follower follower);
    void unfollow(std::uint64_t id);
    void set_print(bool print) { print_ = print; }

private:
    TraceLog();
    void print(const TraceLine &line) const;

    static constexpr std::size_t max_lines = 2000;
    std::deque<TraceLine> lines_;
    std::map<std::uint64_t, Follower> followers_;
    std::uint64_t written_ = 0;
    std::uint64_t last_follower_ = 0;
    bool print_ = true;
    std::unique_ptr<Journal> journal_; /* null where stderr is not the journal */
};

/* The text of a printf format with its arguments, of any length. */
std::string format_text(const char *format, va_list arguments);

/* Writes one line to the log; the format is printf's. */
void trace(Level level, const char *zone, const char *format, ...) __attribute__((format(printf, 3, 4)));

} // namespace keel

#endif

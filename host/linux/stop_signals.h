/*
 * The signals that ask the host to end, or to read its settings again; and an end that comes whatever hangs.
 */
#ifndef HOST_LINUX_STOP_SIGNALS_H
#define HOST_LINUX_STOP_SIGNALS_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <uv.h>

#include "host/base/uv_loop.h"

namespace keel {

/* SIGTERM, SIGINT and SIGQUIT stop the loop, once: more of them during the clean-up change nothing. SIGHUP has the
 * settings read again; SIGUSR1, SIGUSR2 and SIGALRM are taken and change nothing at all.
 *
 * A thread of its own waits for them, since the plug-in's shell commands hold the loop. From the first one on it
 * watches these commands: one that hangs is killed, so that the clean-up goes on with the next; and when the clean-up
 * as a whole takes too long, the process ends all the same, with status 1. */
class StopSignals {
public:
    /* To be made before programs are started and before any other thread: the signals are blocked from then on, in the
     * plug-in's shell commands, too, which Ctrl-C in the host's terminal must not cut short. The loop must outlive it.
     */
    explicit StopSignals(UvLoop &loop);
    StopSignals(const StopSignals &) = delete;
    StopSignals &operator=(const StopSignals &) = delete;
    /* The clean-up is over. The signals stay blocked: what comes now is too late to change anything. */
    ~StopSignals();

    /* What SIGHUP has done, on a turn of the loop; null for nothing. Several that come close together count as one. */
    void on_reload(std::function<void()> reload) { reload_ = std::move(reload); }
    /* The command lines of the commands that were killed: what they were to undo may still be there. */
    std::vector<std::string> killed() const;

private:
    using Clock = std::chrono::steady_clock;

    void wait_for_signals();
    void watch_commands(Clock::time_point now);

    UvLoop &loop_;
    std::function<void()> reload_; /* of the loop's thread alone */
    uv_async_t *asked_;
    uv_async_t *reload_asked_;
    int signals_;
    std::atomic<bool> over_ = false;
    std::map<pid_t, Clock::time_point> commands_; /* that run, since when they are known */
    mutable std::mutex mutex_;
    std::vector<std::string> killed_;
    std::thread thread_;
};

} // namespace keel

#endif

#include "host/linux/stop_signals.h"

#include <dirent.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <stdexcept>

namespace keel {

namespace {

using namespace std::chrono_literals;

constexpr int look_every_ms = 50;
constexpr auto first_hangs = 2000ms; /* a command that runs for longer, once the host is to end, hangs */
constexpr auto next_hangs = 250ms;   /* the next ones are likely to, if one did */
constexpr auto end_limit = 15s;      /* less than the unit's TimeoutStopSec */

sigset_t taken_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGUSR1, SIGUSR2, SIGALRM})
        sigaddset(&set, number);
    return set;
}

bool asks_for_the_end(std::uint32_t number) {
    return number == SIGTERM || number == SIGINT || number == SIGQUIT;
}

struct Process {
    pid_t pid;
    pid_t parent;
    pid_t group;
};

std::optional<Process> process_of(const char *name) {
    char *end = nullptr;
    const long pid = std::strtol(name, &end, 10);
    if (pid <= 0 || *end != '\0')
        return std::nullopt;
    std::ifstream file(std::string("/proc/") + name + "/stat");
    std::string line;
    if (!std::getline(file, line))
        return std::nullopt;
    const auto name_end = line.rfind(')'); /* the name may hold anything */
    Process one{static_cast<pid_t>(pid), 0, 0};
    char state = 0;
    if (name_end == std::string::npos ||
        std::sscanf(line.c_str() + name_end + 1, " %c %d %d", &state, &one.parent, &one.group) != 3 || state == 'Z')
        return std::nullopt;
    return one;
}

std::vector<Process> all_processes() {
    std::vector<Process> all;
    DIR *folder = opendir("/proc");
    if (!folder)
        return all;
    while (const dirent *entry = readdir(folder))
        if (const auto one = process_of(entry->d_name))
            all.push_back(*one);
    closedir(folder);
    return all;
}

std::string command_line(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/cmdline");
    std::string words((std::istreambuf_iterator<char>(file)), {});
    while (!words.empty() && words.back() == '\0')
        words.pop_back();
    std::replace(words.begin(), words.end(), '\0', ' ');
    return words;
}

/* With all that it has started; in no group of its own, so one by one. */
void kill_tree(const std::vector<Process> &all, pid_t root) {
    kill(root, SIGKILL);
    for (const Process &one : all)
        if (one.parent == root)
            kill_tree(all, one.pid);
}

/* How the thread wakes the loop, which does not stay for its sake. */
uv_async_t *start_wake_up(UvLoop &loop, void *data, uv_async_cb call) {
    auto *handle = new uv_async_t;
    handle->data = data;
    uv_async_init(loop.handle(), handle, call);
    uv_unref(reinterpret_cast<uv_handle_t *>(handle));
    return handle;
}

void end_wake_up(uv_async_t *handle) {
    uv_close(reinterpret_cast<uv_handle_t *>(handle),
             [](uv_handle_t *closed) { delete reinterpret_cast<uv_async_t *>(closed); });
}

} // namespace

StopSignals::StopSignals(UvLoop &loop) : loop_(loop) {
    const sigset_t set = taken_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signals_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signals_ < 0)
        throw std::runtime_error("no signalfd");
    asked_ = start_wake_up(loop_, &loop_, [](uv_async_t *asked) { static_cast<UvLoop *>(asked->data)->stop(); });
    reload_asked_ = start_wake_up(loop_, this, [](uv_async_t *asked) {
        auto *self = static_cast<StopSignals *>(asked->data);
        if (self->reload_)
            self->reload_();
    });
    thread_ = std::thread([this] { wait_for_signals(); });
}

StopSignals::~StopSignals() {
    over_ = true;
    thread_.join();
    close(signals_);
    end_wake_up(asked_);
    end_wake_up(reload_asked_);
}

std::vector<std::string> StopSignals::killed() const {
    const std::lock_guard lock(mutex_);
    return killed_;
}

void StopSignals::wait_for_signals() {
    std::optional<Clock::time_point> asked_at;
    while (!over_) {
        pollfd readable{signals_, POLLIN, 0};
        poll(&readable, 1, look_every_ms);
        signalfd_siginfo signal{};
        while (read(signals_, &signal, sizeof signal) == sizeof signal)
            if (asks_for_the_end(signal.ssi_signo) && !asked_at) {
                asked_at = Clock::now();
                uv_async_send(asked_);
            } else if (signal.ssi_signo == SIGHUP && !asked_at) {
                uv_async_send(reload_asked_);
            }
        if (!asked_at)
            continue;
        const auto now = Clock::now();
        watch_commands(now);
        if (now - *asked_at < end_limit)
            continue;
        std::fprintf(stderr, "keelhost: the clean-up is not over after %lld s; what is left of it is left undone\n",
                     static_cast<long long>(std::chrono::seconds(end_limit).count()));
        _exit(1);
    }
}

/* The plug-in's shell commands are the children in the host's own process group: what the host starts has its own. */
void StopSignals::watch_commands(Clock::time_point now) {
    const std::vector<Process> all = all_processes();
    std::map<pid_t, Clock::time_point> running;
    for (const Process &one : all) {
        if (one.parent != getpid() || one.group != getpgrp())
            continue;
        const auto known = commands_.find(one.pid);
        const auto since = known == commands_.end() ? now : known->second;
        running[one.pid] = since;
        const std::lock_guard lock(mutex_);
        if (now - since < (killed_.empty() ? first_hangs : next_hangs))
            continue;
        killed_.push_back(command_line(one.pid));
        std::fprintf(stderr, "keelhost: killed, because it hangs: %s\n", killed_.back().c_str());
        kill_tree(all, one.pid);
        running.erase(one.pid);
    }
    commands_ = std::move(running);
}

} // namespace keel

/*
 * Starting programs: the one way in which the host does it.
 */
#ifndef HOST_LINUX_PROGRAM_H
#define HOST_LINUX_PROGRAM_H

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/linux/confinement.h"

namespace keel {

/* One program that was started. It has a process group of its own: what it starts is killed with it, and Ctrl-C in the
 * host's terminal leaves it to the host. The kernel kills it when the host dies. */
class Program {
public:
    enum class Output {
        Inherited, /* the host's standard output and error */
        Piped      /* one pipe for both, see output() */
    };

    /* Starts argv[0] with default signals, nothing to read, and no descriptor of the host's besides its output. Its
     * environment is a PATH of the system's folders, in which argv[0] is looked up, and LC_ALL=C; of the host's own it
     * gets nothing. With a confinement it is held to that. Null with the reason in *error when it cannot be started. */
    static std::unique_ptr<Program> start(const std::vector<std::string> &argv, Output output, std::string *error,
                                          const Confinement *confinement = nullptr);
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;
    /* Kills it if it has not ended, and takes its status, so that the kernel forgets it. */
    ~Program();

    int pid() const { return pid_; }
    /* Becomes readable when it has ended. Belongs to this. */
    int end() const { return end_; }
    /* What it prints comes in here, without blocking; -1 when not piped. Belongs to this. */
    int output() const { return output_; }

    /* Kills it and what it started, unless its status has been taken already. */
    void kill();
    /* Its exit status, or 128 and the signal that ended it; nothing while it runs. */
    std::optional<int> status();
    /* Waits for its end for at most that long: the loop does not turn meanwhile. False when it still runs. */
    bool wait(int milliseconds) const;

private:
    Program(pid_t pid, int end, int output) : pid_(pid), end_(end), output_(output) {}

    pid_t pid_;
    int end_;
    int output_;
    std::optional<int> status_;
};

/* Where Program would find one of that name, or path; "" when it would not. */
std::string find_program(const std::string &name);

/* Runs a program and waits for it, for what is done while the loop does not turn. Nothing when it cannot be started, or
 * was killed because it ran for longer than that; then the reason is in *error. */
std::optional<int> run_and_wait(const std::vector<std::string> &argv, int milliseconds, std::string *error);

} // namespace keel

#endif

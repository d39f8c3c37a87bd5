/*
 * Programs that run beside the loop, and never outlive the host.
 */
#ifndef HOST_LINUX_CHILD_H
#define HOST_LINUX_CHILD_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/base/process_runner.h"
#include "host/base/uv_loop.h"
#include "host/linux/confinement.h"

namespace keel {

/* One running program (program.h). The destructor kills it, and then nothing of it is reported any more; the kernel
 * forgets it on a later turn of the loop. */
class Child {
public:
    using OnLine = std::function<void(const std::string &line)>;
    using OnExit = std::function<void(int status)>;

    /* Starts argv[0] as Program does. Lines of its standard output and error go to on_line when there is one, else
     * they are the host's; all that it printed comes before on_exit, which is told its exit status, or 128 and the
     * signal that ended it. Both may destroy the child. Null with the reason in *error when it cannot be started. */
    static std::unique_ptr<Child> start(UvLoop &loop, const std::vector<std::string> &argv, OnLine on_line,
                                        OnExit on_exit, std::string *error, const Confinement *confinement = nullptr);
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child();

    int pid() const;
    /* Kills it and what it started; its end is reported as any other. */
    void kill();
    /* Kills it, with a trace, if it still runs after that long from now. To be called once. */
    void limit(std::uint64_t milliseconds);
    /* Waits for its end while the loop does not turn, for at most that long. False when it still runs. */
    bool wait(int milliseconds) const;

private:
    struct State; /* lives until the program has ended and libuv has closed its handles */

    explicit Child(State *state) : state_(state) {}

    State *state_;
};

/* Runs the programs of process objects: scripts, of which none may take longer than a minute. */
class UvProcessRunner : public ProcessRunner {
public:
    /* How a program ended, with the last line that it printed. */
    using Report = std::function<void(const std::vector<std::string> &argv, int status, const std::string &said)>;

    /* What the programs print goes to the host's standard error; how they end is reported to who wants to know. */
    explicit UvProcessRunner(UvLoop &loop, Report report = {}) : loop_(loop), report_(std::move(report)) {}

    bool run(const std::vector<std::string> &argv, OnExit on_exit) override;

private:
    UvLoop &loop_;
    Report report_;
    std::map<std::uint64_t, std::unique_ptr<Child>> running_;
    std::uint64_t started_ = 0;
};

} // namespace keel

#endif

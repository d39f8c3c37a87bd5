/*
 * Child processes that never outlive the host.
 */
#ifndef HOST_LINUX_CHILD_H
#define HOST_LINUX_CHILD_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <uv.h>

#include "host/base/process_runner.h"
#include "host/base/uv_loop.h"

namespace keel {

/* One running program. The kernel kills it when the host dies; the destructor kills it, and then nothing of it is
 * reported any more. */
class Child {
public:
    using OnLine = std::function<void(const std::string &line)>;
    using OnExit = std::function<void(int status)>;

    /* Starts argv[0] (looked up in PATH). Lines of its standard output and error go to on_line when there is one, else
     * they are the host's. Null with the reason in *error when it cannot be started. */
    static std::unique_ptr<Child> start(UvLoop &loop, const std::vector<std::string> &argv, OnLine on_line,
                                        OnExit on_exit, std::string *error);
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child();

    int pid() const;

private:
    struct State; /* lives until libuv has closed its handles */

    explicit Child(State *state) : state_(state) {}

    State *state_;
};

/* Runs the programs of process objects. */
class UvProcessRunner : public ProcessRunner {
public:
    explicit UvProcessRunner(UvLoop &loop) : loop_(loop) {}
    ~UvProcessRunner() override;

    bool run(const std::vector<std::string> &argv, OnExit on_exit) override;

private:
    UvLoop &loop_;
    std::vector<std::shared_ptr<std::unique_ptr<Child>>> running_;
};

} // namespace keel

#endif

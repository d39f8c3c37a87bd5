/*
 * Running programs: the real runner (linux/child.h) starts them, its twins record.
 */
#ifndef HOST_BASE_PROCESS_RUNNER_H
#define HOST_BASE_PROCESS_RUNNER_H

#include <functional>
#include <string>
#include <vector>

namespace keel {

class ProcessRunner {
public:
    using OnExit = std::function<void(int status)>;

    virtual ~ProcessRunner() = default;
    /* Starts argv[0] with its arguments; on_exit is called on the loop. False when it cannot be started. */
    virtual bool run(const std::vector<std::string> &argv, OnExit on_exit) = 0;
};

} // namespace keel

#endif

/*
 * Process objects: one child at a time, further starts queue up.
 */
#include <cstdarg>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "host/core/host_internal.h"
#include "host/core/trace.h"
#include "platform/hull.h"

struct connection {};

struct process {
    process_exit_handler_t on_exit = nullptr;
    std::deque<std::vector<std::string>> waiting;
    bool running = false;
};

namespace {

connection the_connection;
std::set<process *> open_processes; /* exits of others are not reported */
bool registered = false;

void prepare() {
    if (registered)
        return;
    registered = true;
    keel::host_on_detach("processes", [] {
        const std::size_t left = open_processes.size();
        for (process *one : open_processes)
            delete one;
        open_processes.clear();
        registered = false;
        return left;
    });
}

bool start(process *target, const std::vector<std::string> &argv) {
    target->running = keel::host_runner().run(argv, [target](int) {
        if (!open_processes.contains(target))
            return;
        target->running = false;
        if (target->on_exit)
            target->on_exit(target);
        while (open_processes.contains(target) && !target->running && !target->waiting.empty()) {
            const std::vector<std::string> next = std::move(target->waiting.front());
            target->waiting.pop_front();
            if (!start(target, next))
                keel::trace(keel::Level::Error, "process", "%s cannot be started", next.front().c_str());
        }
    });
    return target->running;
}

} // namespace

extern "C" {

connection_t *hull_connection(hull_t *) {
    return &the_connection;
}

process_t *process_create(connection_t *connection) {
    if (!connection)
        return nullptr;
    prepare();
    auto *fresh = new process;
    open_processes.insert(fresh);
    return fresh;
}

void process_setExitHandler(process_t *process, process_exit_handler_t handler) {
    if (process)
        process->on_exit = handler;
}

bool process_start(process_t *process, const char *program, ...) {
    if (!process || !program)
        return false;
    std::vector<std::string> argv{program};
    va_list arguments;
    va_start(arguments, program);
    while (const char *argument = va_arg(arguments, const char *))
        argv.emplace_back(argument);
    va_end(arguments);
    if (!process->running)
        return start(process, argv);
    process->waiting.push_back(std::move(argv));
    return true;
}

bool process_isRunning(const process_t *process) {
    return process && process->running;
}

void process_destroy(process_t *process) {
    if (open_processes.erase(process))
        delete process;
}
}

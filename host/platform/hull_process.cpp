/*
 * Process objects: one child at a time, further starts queue up.
 */
#include <cstdarg>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/base/trace.h"
#include "host/platform/attachment.h"
#include "platform/hull.h"

struct connection {};

struct process {
    process_exit_handler_t on_exit = nullptr;
    std::deque<std::vector<std::string>> waiting;
    bool running = false;
};

namespace {

connection the_connection;
std::map<process *, std::shared_ptr<process>> open_processes;
bool registered = false;

void prepare() {
    if (registered)
        return;
    registered = true;
    keel::host_on_detach("processes", [] {
        const std::size_t left = open_processes.size();
        open_processes.clear();
        registered = false;
        return left;
    });
}

void ended(const std::shared_ptr<process> &target);

/* The runner does not keep the object alive: the exit of one that is gone is nobody's, also when a later object has
 * come to lie at the same address. */
bool start(process &target, const std::vector<std::string> &argv) {
    const std::weak_ptr<process> reference = open_processes.at(&target);
    target.running = keel::host_runner().run(argv, [reference](int) {
        if (!reference.expired()) /* else the host may be detached */
            keel::host_loop().post_last([reference] {
                if (const auto still_there = reference.lock())
                    ended(still_there);
            });
    });
    return target.running;
}

void ended(const std::shared_ptr<process> &target) {
    target->running = false;
    if (target->on_exit)
        target->on_exit(target.get());
    while (open_processes.contains(target.get()) && !target->running && !target->waiting.empty()) {
        const std::vector<std::string> next = std::move(target->waiting.front());
        target->waiting.pop_front();
        if (!start(*target, next))
            keel::trace(keel::Level::Error, "process", "%s cannot be started", next.front().c_str());
    }
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
    const auto fresh = std::make_shared<process>();
    open_processes[fresh.get()] = fresh;
    return fresh.get();
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
    if (!process->running && process->waiting.empty()) /* in the exit handler others may still be waiting */
        return start(*process, argv);
    process->waiting.push_back(std::move(argv));
    return true;
}

bool process_isRunning(const process_t *process) {
    return process && process->running;
}

void process_destroy(process_t *process) {
    open_processes.erase(process);
}
}

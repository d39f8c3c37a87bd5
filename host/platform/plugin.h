/*
 * The plug-in's side of the host: the C interface in platform/ on top of loop, data model and process runner.
 */
#ifndef HOST_PLATFORM_PLUGIN_H
#define HOST_PLATFORM_PLUGIN_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/base/loop.h"
#include "host/base/process_runner.h"
#include "host/gateway/graph.h"

namespace keel {

/* Connects platform/ to a loop, a model with its graph of interfaces, and a runner, which must outlive the connection.
 * One at a time. */
void host_attach(Loop &loop, InterfaceGraph &graph, ProcessRunner &runner);
/* Ends it: drops requests, timers, queries and processes that the plug-in left open, and traces how many. */
void host_detach();

/* Time spent in the plug-in's reply and notification handlers so far, ns; with what they call synchronously. */
std::uint64_t plugin_handler_ns();

/* Loads a plug-in (its load-time constructors register its sub-modules) and starts the sub-modules in order. False with
 * the reason in *error when it cannot be loaded. */
bool plugin_load(const std::string &file, std::string *error);
/* Stops the sub-modules in reverse order, completes what they pushed, detaches, and unloads the plug-in. */
void plugin_unload();
/* As when the process is killed: the sub-modules are not told, what they have sent is lost, the plug-in is unloaded.
 * What it has allocated stays so. For tests. */
void plugin_drop();
/* The names of the sub-modules that started, in order. */
std::vector<std::string> plugin_modules();

} // namespace keel

#endif

/*
 * The plug-in's shell commands, on their way to the C library's: the timeline has each with its outcome. The plug-in
 * finds this one first, as the program's own functions come before those of libraries.
 */
#include <dlfcn.h>

#include <cstdlib>

#include "host/base/timeline.h"

extern "C" int system(const char *command) {
    using System = int (*)(const char *);
    static const auto library_system = reinterpret_cast<System>(dlsym(RTLD_NEXT, "system"));
    const int status = library_system ? library_system(command) : -1;
    if (command)
        keel::Timeline::instance().note(keel::TimelineEvent::Kind::Rule, "", status == 0 ? "done" : "failed", command);
    return status;
}

/*
 * The module host: loads the plug-in, starts and stops its sub-modules.
 */
#include <dlfcn.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/base/trace.h"
#include "host/platform/plugin.h"
#include "platform/keel.h"

struct hull {};
struct sysbus {};

namespace {

hull the_hull;
sysbus the_sysbus;
void *library = nullptr;
std::vector<ModuleDescriptor *> registered;
std::vector<ModuleDescriptor *> started;

} // namespace

namespace keel {

bool plugin_load(const std::string &file, std::string *error) {
    if (library) {
        *error = "a plug-in is loaded already";
        return false;
    }
    const std::string path = file.find('/') == std::string::npos ? "./" + file : file;
    library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        *error = dlerror();
        registered.clear();
        return false;
    }
    for (ModuleDescriptor *descriptor : registered) {
        if (descriptor->start && descriptor->start() == 1)
            started.push_back(descriptor);
        else
            trace(Level::Error, "host", "sub-module %s did not start", descriptor->name);
    }
    return true;
}

void plugin_drop() {
    if (!library)
        return;
    started.clear();
    registered.clear();
    host_detach();
    dlclose(library);
    library = nullptr;
}

void plugin_unload() {
    if (!library)
        return;
    for (auto descriptor = started.rbegin(); descriptor != started.rend(); ++descriptor)
        if ((*descriptor)->stop)
            (*descriptor)->stop();
    keel_request_flush("");
    plugin_drop();
}

std::vector<std::string> plugin_modules() {
    std::vector<std::string> names;
    names.reserve(started.size());
    for (const ModuleDescriptor *descriptor : started)
        names.emplace_back(descriptor->name);
    return names;
}

} // namespace keel

extern "C" {

bool rig_module_register(ModuleDescriptor *descriptor) {
    if (!descriptor || !descriptor->name || !*descriptor->name ||
        std::find(registered.begin(), registered.end(), descriptor) != registered.end())
        return false;
    registered.push_back(descriptor);
    return true;
}

hull_t *rig_getHull() {
    return &the_hull;
}

sysbus_t *rig_getSysbus() {
    return &the_sysbus;
}
}

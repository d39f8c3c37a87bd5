/*
 * Giving interfaces of a freshly loaded model the names that they have on this machine.
 */
#ifndef HOST_CONFIG_INTERFACE_NAMES_H
#define HOST_CONFIG_INTERFACE_NAMES_H

#include <map>
#include <string>

#include "host/model/model.h"

namespace keel {

/* Old name -> new name; all at once, so that names can be exchanged. With each goes what stands below it, and the links
 * of other interfaces follow. For a model that nobody watches yet; what cannot be written is traced. */
void rename_interfaces(Model &model, const std::map<std::string, std::string> &names);

} // namespace keel

#endif

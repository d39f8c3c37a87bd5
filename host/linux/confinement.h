/*
 * What a program that listens to strangers may reach.
 */
#ifndef HOST_LINUX_CONFINEMENT_H
#define HOST_LINUX_CONFINEMENT_H

#include <string>
#include <vector>

namespace keel {

/* Of the host's rights the program keeps those over the network alone, and gains none; in the place of these files,
 * such as the store and the control socket, it finds /dev/null. */
struct Confinement {
    std::vector<std::string> hidden;
};

/* Whether this process may hide files from its children; without that right (CAP_SYS_ADMIN) they see them. */
bool may_hide_files();

/* In a new process, before it becomes the program; allocates nothing. False with errno when it cannot be done. */
bool confine(const Confinement &confinement);

} // namespace keel

#endif

#include "host/linux/confinement.h"

#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace keel {

namespace {

constexpr std::uint32_t bit(int capability) {
    return std::uint32_t{1} << capability;
}
constexpr std::uint32_t network = bit(CAP_NET_ADMIN) | bit(CAP_NET_RAW) | bit(CAP_NET_BIND_SERVICE);
constexpr int words = 2; /* of a set of capabilities, in this version */

bool read_capabilities(__user_cap_data_struct (&sets)[words]) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capget, &header, sets) == 0;
}

bool hide(const std::vector<std::string> &files) {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    for (const std::string &file : files)
        if (mount("/dev/null", file.c_str(), nullptr, MS_BIND, nullptr) != 0 &&
            errno != ENOENT) /* nothing is there that could be reached */
            return false;
    return true;
}

bool keep_network_rights_alone() {
    for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; ++capability)
        if ((capability > 31 || !(network & bit(capability))) && prctl(PR_CAPBSET_DROP, capability) != 0 &&
            errno != EPERM) /* who may not drop one has no such right to pass on */
            return false;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[words] = {};
    if (!read_capabilities(sets))
        return false;
    const std::uint32_t kept = sets[0].permitted & network;
    sets[0] = {kept, kept, kept};
    sets[1] = {0, 0, 0};
    return syscall(SYS_capset, &header, sets) == 0 && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

} // namespace

bool may_hide_files() {
    __user_cap_data_struct sets[words] = {};
    return read_capabilities(sets) && (sets[0].effective & bit(CAP_SYS_ADMIN)) != 0;
}

bool confine(const Confinement &confinement) {
    return (!may_hide_files() || hide(confinement.hidden)) && keep_network_rights_alone();
}

} // namespace keel

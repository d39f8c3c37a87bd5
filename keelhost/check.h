/*
 * keelhost --check: whether the host would start and find what it needs.
 */
#ifndef KEELHOST_CHECK_H
#define KEELHOST_CHECK_H

#include <string>

namespace keel {

struct CheckOptions {
    std::string model;
    std::string settings; /* "" for none */
    std::string udhcpc;
    std::string igmpproxy;
};

/* Prints what is wrong, and says so when nothing is; the exit status: 0, or 1 where there are errors. Touches nothing,
 * also while a host runs. */
int check(const CheckOptions &options);

} // namespace keel

#endif

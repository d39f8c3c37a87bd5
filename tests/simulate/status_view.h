/*
 * What keelctl tells a person of the service, asked of a simulated gateway.
 */
#ifndef TESTS_SIMULATE_STATUS_VIEW_H
#define TESTS_SIMULATE_STATUS_VIEW_H

#include <set>
#include <string>

#include "host/model/model.h"

namespace keel {

struct StatusView {
    std::string headline;
    std::set<std::string> served; /* the MAC addresses of the STBs that it calls served */
};

StatusView status_view(Model &model);

} // namespace keel

#endif

/*
 * What the plug-in has in its memory, for who compares it with what stands outside.
 */
#ifndef TESTS_SIMULATE_IMAGE_H
#define TESTS_SIMULATE_IMAGE_H

#include <string>

#include "routed/routed_state.h"

namespace keel {

/* Finds the state of the routed mode in the plug-in that is loaded; throws when it cannot. Anew after every load. */
const RoutedState &routed_state_of(const std::string &plugin);
/* Whether that file is loaded at all. */
bool is_loaded(const std::string &plugin);

} // namespace keel

#endif

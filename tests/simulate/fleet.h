/*
 * Many gateways of one operator at once: what its DHCP server gets from them when a street has its power again.
 */
#ifndef TESTS_SIMULATE_FLEET_H
#define TESTS_SIMULATE_FLEET_H

#include <string>

namespace keel {

/* Runs that many gateways, each with four STBs, one after another by the same clock, and returns a table: the messages
 * a second over the time, with the pauses as the WAN clients keep them and with pauses spread wider. */
std::string fleet_report(unsigned gateways, const std::string &plugin, const std::string &model_file);

} // namespace keel

#endif

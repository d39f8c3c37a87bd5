/*
 * Why a device is not served: the chain from its first packet to its picture, walked as far as it holds.
 */
#ifndef KEELCTL_DIAGNOSIS_H
#define KEELCTL_DIAGNOSIS_H

#include <string>

#include "keelctl/gateway.h"
#include "keelctl/walk.h"

namespace keelctl {

Diagnosis diagnose(Gateway &gateway, const Device &device);

/* The same as a JSON object, and for a person to read. */
Json diagnosis_json(const Device &device, const Diagnosis &diagnosis);
std::string print_diagnosis(const Gateway &gateway, const Device &device, const Diagnosis &diagnosis);

/* "3 of 4 STBs served: stb-bedroom waits for the operator since 2 min", of those that are on the LAN; and by the way
 * their JSON to *list. */
std::string headline(Gateway &gateway, Json *list);

} // namespace keelctl

#endif

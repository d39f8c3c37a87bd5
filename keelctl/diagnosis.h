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

} // namespace keelctl

#endif

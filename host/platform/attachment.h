/*
 * What the files behind platform/ share: the loop and the model that the plug-in is attached to.
 */
#ifndef HOST_PLATFORM_ATTACHMENT_H
#define HOST_PLATFORM_ATTACHMENT_H

#include <functional>

#include "host/platform/plugin.h"
#include "platform/variant.h"

namespace keel {

bool host_attached();
Loop &host_loop();
Model &host_model();
InterfaceGraph &host_graph();
ProcessRunner &host_runner();

/* Called by host_detach(), in the order of registration; a unit registers once, when it is first used. It returns how
 * many of its things the plug-in left open; what they are is for the trace. */
void host_on_detach(const char *what, std::function<std::size_t()> release);

/* Carries out everything that the plug-in sent or pushed before; every synchronous call begins with it. */
void bus_carry_out_pending();

/* Between the model's values and the plug-in's; the target is initialised by this call. */
void to_variant(Type type, const Value &value, variant_t *variant);
/* Nothing for a list, a map or an empty variant. */
std::optional<Value> from_variant(const variant_t *variant);

} // namespace keel

#endif

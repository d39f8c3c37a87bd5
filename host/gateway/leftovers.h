/*
 * What a run that was killed has left in the store.
 */
#ifndef HOST_GATEWAY_LEFTOVERS_H
#define HOST_GATEWAY_LEFTOVERS_H

#include "host/model/model.h"

namespace keel {

/* To be called once the store is restored and before the plug-in is loaded.
 *
 * In another mode than Routed over the Dedicated interface, what that mode would have taken along when it was left
 * goes: identities, received routes and servers, routes of the interfaces, holds of leases. In that mode, a stored set
 * of received routes of which no interface has one goes, so that the first binding installs it: the plug-in installs a
 * set only when it differs from the stored one. */
void drop_leftovers(Model &model);

} // namespace keel

#endif

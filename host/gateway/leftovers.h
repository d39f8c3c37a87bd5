/*
 * What a run that was killed has left in the store.
 */
#ifndef HOST_GATEWAY_LEFTOVERS_H
#define HOST_GATEWAY_LEFTOVERS_H

#include "host/gateway/graph.h"
#include "host/model/model.h"

namespace keel {

/* To be called once the store is restored. In another mode than Routed over the Dedicated interface, what that mode
 * would have taken along when it was left goes: identities, received routes and servers, routes of the interfaces,
 * holds of leases. */
void drop_leftovers(Model &model);

/* To be called once it is known which interfaces are up, and before the plug-in is loaded, which cleans only the
 * interfaces that it has used itself. Routes of the routed mode go from every interface that is not the IPTV one now.
 * If none is left then, the stored set of received routes goes, too, so that the first binding installs it: the plug-in
 * installs a set only when it differs from the stored one. */
void drop_stray_routes(const InterfaceGraph &graph);

} // namespace keel

#endif

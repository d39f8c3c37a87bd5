/*
 * DHCP messages as the timeline keeps them.
 */
#ifndef HOST_DHCP_DHCP_NOTE_H
#define HOST_DHCP_DHCP_NOTE_H

#include "host/base/timeline.h"

namespace keel {

/* Notes a message of either side, with its type, the address that it is about and its options; nothing for what has no
 * type. */
void note_dhcp(TimelineEvent::Kind side, const std::string &who, const Bytes &message);

} // namespace keel

#endif

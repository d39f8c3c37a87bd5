#include "keelctl/wan_client.h"

namespace keelctl {

namespace {

constexpr std::int64_t unleased_pause_s = 120; /* until a client that was given up is tried again, without an address */
constexpr std::int64_t internal_pause_s = 1800; /* and with one that stays in force */

} // namespace

WanClient::WanClient(Gateway &gateway, const Json &identity)
    : interface("dhcp_zep_" + text(identity, "Name")), wan(gateway.interfaces[interface]),
      exchange(child(gateway.clients, interface)), client_id(text(descend(wan, {"SentOption", "61"}), "Value")),
      state(text(wan, "DHCPStatus")), status(text(identity, "DHCPCStatus")), address(text(identity, "IPAddress")),
      next_try(number(exchange, "NextTry")) {
    if (or_none(address) == "none")
        address = "";
    /* The last slot's identity is written when its client is given up, and not at a binding: it may be an old one. */
    if (is_bound() && or_none(text(wan, "IPAddress")) != "none") {
        address = text(wan, "IPAddress");
        status = "Connected";
    }
    if (state == "Idle" && (status == "Unleased" || status == "Internal"))
        next_try = number(exchange, "Since") + (status == "Unleased" ? unleased_pause_s : internal_pause_s);
}

} // namespace keelctl

/*
 * The state that all of the routed mode shares, and the small operations on it; and what the files of the routed mode
 * offer one another.
 */
#ifndef ROUTED_ROUTED_STATE_H
#define ROUTED_ROUTED_STATE_H

#include "frame/module_util.h"
#include "platform/weft.h"
#include "routed/common.h"
#include "routed/dhcp_server.h"
#include "routed/ip_route.h"
#include "routed/lease.h"

/* Timers of the routed mode, ms. */
enum {
    dhcp_cycle_timeout_ms = 64000,      /* how long a client may look for a server */
    unleased_retry_ms = 120000,         /* until it is tried again without an address */
    internal_retry_ms = 1800000,        /* until it is tried again while an address is held */
    release_delay_ms = 172800000,       /* 48 hours without a device */
    route_installation_delay_ms = 1000, /* between the old routes' deletion and the new ones */
    unleased_lease_time_s = 300
};

struct RoutedState {
    char wan_addr[18];  /* the WAN MAC address, from the environment */
    char iptv_intf[36]; /* the network device below "iptv"; empty when there is none */
    char ntp_server[server_value_size];
    char www_server[server_value_size];
    LoadedList client_leases; /* owned */
    LoadedList routes;        /* owned; the classless static routes in force */
    request_t *rule_requests[dhcp_pools];
    weft_query_t *iptv_query;
};

/* The settings that the routed mode acts on. It acts only while the interface is Dedicated. */
extern ServiceMode routed_mode;
extern IptvInterfaceMode routed_interface;
/* Stays at its place: it is the query's user data. */
extern RoutedState routed_state;

/* The name of an identity's WAN client interface. */
struct ClientInterface {
    explicit ClientInterface(const Client_lease *lease) { format_text(name, "dhcp_zep_%s", lease->name); }
    char name[client_interface_size];
};

/* ------------------------------------------------------------------------------------ state and offers (routed_state)
 */

/* Takes new server values (null: leave alone) and hands them on to the settings and to both LAN pools. */
void zep_routed_set_ntpwwwserver(const char *ntp, const char *www);
/* Takes chains, routes and addresses off an interface: 0 for no name, 1 otherwise. */
int zep_routed_iptv_intf_cleanup(const char *name);
/* Takes away the rules of devices that were mapped while the IPTV path was on no interface, which no cleanup of an
 * interface finds. Does nothing when there are none. */
void routed_empty_used_chains(void);
/* Whether an identity holds a WAN address in force. */
bool routed_holds_address(const Client_lease *lease);
/* Whether any does. */
bool zep_routed_has_connected_lease(void);
/* Without one, the routes leave the IPTV interface. */
void routed_drop_unused_routes(void);
/* Starts the DHCP cycle of an unconnected identity on the next turn; 0 when nothing was started. */
int zep_routed_dhcp_cycle_kick(Client_lease *lease);
/* Release the hold of an identity's LAN leases, or of one, with the lease time and options that its state gives. */
void zep_routed_slease_offer_all(const Client_lease *lease);
void zep_routed_slease_offer_unleased(const char *lease_path);
void zep_routed_slease_offer_leased(const char *lease_path);

/* An address that an identity has no more leaves the IPTV interface, unless the operator has given it to another one,
 * which holds it with the same prefix length: the interface has it once for both. */
void routed_drop_address(const Client_lease *lease, const char *address, const char *mask);

/* Map one device's LAN address to the identity's WAN address, or undo it; nat_mapped follows the outcome. */
void routed_map_device(Server_lease *device, const char *wan_address);
void routed_unmap_device(Server_lease *device, const char *wan_address);

/* ------------------------------------------------------------------------------------------------ cycle (dhcp_cycle)
 */

int zep_routed_dhcp_client_init(Client_lease *lease);
void zep_routed_start_dhcp_cycle_cb(hull_timer_t *timer, void *lease);
void zep_routed_stop_dhcp_cycle_cb(hull_timer_t *timer, void *lease);
void zep_routed_client_release_cb(hull_timer_t *timer, void *lease);
void zep_routed_client_lease_release(void *lease);
void zep_routed_client_lease_remove(Client_lease *lease);

/* -------------------------------------------------------------------------------------------- admission (admission) */

bool zep_routed_dhcp_server_lease_cb(request_t *request, reply_item_t *item, sysbus_t *from, sysbus_t *to, void *data);
int zep_routed_dhcp_server_lease_add(const object_t *lease, DeviceType device_type);
bool zep_routed_slease_active_handler(request_t *request, reply_item_t *item, sysbus_t *from, sysbus_t *to, void *data);
bool zep_routed_slease_ipaddress_handler(request_t *request, reply_item_t *item, sysbus_t *from, sysbus_t *to,
                                         void *data);

/* ---------------------------------------------------------------------------------------- static routes
 * (static_routes) */

bool zep_routed_dhcp_option121_handle(Client_lease *lease, uint8_t force);
void zep_routed_add_routes(void *list);
bool zep_routed_route_status_handler(request_t *request, reply_item_t *item, sysbus_t *from, sysbus_t *to, void *data);
/* Installs the set that is in force on the interface of this moment, a second later. */
void routed_install_routes(void);
/* An installation that is still to come is not wanted any more. */
void routed_cancel_route_installation(void);

/* ------------------------------------------------------------------------------------------------ binding (binding) */

bool zep_routed_dhcp_client_cb(request_t *request, reply_item_t *item, sysbus_t *from, sysbus_t *to, void *data);

/* ------------------------------------------------------------------------------------------------ controller (routed)
 */

int zep_routed_start(void);
void zep_routed_stop(void);
void zep_routed_dedicated_mode_init(ServiceConfig *config);
void zep_routed_dedicated_mode_cleanup(void);
void zep_routed_bridge_iptv_intf_setup(const variant_t *result, void *state);

#endif

/*
 * The lease records of the routed mode. A Client_lease stands for one DHCP client identity on the WAN side, a
 * Server_lease for one device on the LAN that is served through it.
 *
 * Text fields are always terminated; a longer text is cut to the field's room.
 */
#ifndef ROUTED_LEASE_H
#define ROUTED_LEASE_H

#include "frame/helpers.h"

enum class DeviceType : uint32_t { STB = 0, ITF = 1, UNKNOWN = 2 };

enum class LeaseStatus : uint32_t {
    Unconnected = 0, /* no WAN state known */
    Connected = 1,   /* the WAN client is bound */
    Internal = 2,    /* the WAN client was stopped while an address was held, which stays in force */
    Unleased = 3     /* the WAN client was stopped without an address */
};

/* What the WAN client last reported. */
enum class DhcpcState : uint32_t {
    Idle = 0,
    Selecting = 1,
    Requesting = 2,
    Bound = 3,
    Renewing = 4,
    Rebinding = 5,
    Other = 6
};

enum {
    client_offset_none = -1, /* the shared identity: no client identifier of its own */
    client_slots = 4,        /* offsets 0 to 3 */
    client_offset_overflow = 4
};

struct Client_lease {
    char name[36];       /* the STB's DHCP client identifier, "itf" or "iptv"; unique */
    char ip_address[16]; /* on the WAN, "0.0.0.0" for none */
    char subnet_mask[16];
    uint8_t dhcp_started;     /* 1 while the DHCP cycle has the WAN client running */
    int32_t client_id_offset; /* added to the WAN MAC address for option 61 */
    LeaseStatus status;
    DhcpcState dhcp_status;
    variant_t option121; /* a list: the classless static routes last received */
    hull_timer_t *start_timer;
    hull_timer_t *stop_timer;
    hull_timer_t *release_timer;
    request_t *status_request; /* watch on the WAN client */
    llist_t server_leases;     /* owned, in the order in which they were appended */
    llist_iterator_t link;     /* in client_leases */
    bool release_deferred;     /* a deferred release is on its way, and wanted */
};

struct Server_lease {
    char id[36];         /* the device's DHCP client identifier */
    char ip_address[16]; /* on the LAN */
    char mac_address[18];
    char lease_path[100]; /* the lease object of the LAN DHCP server; empty until it is reported */
    DeviceType device_type;
    uint8_t active;     /* present on the LAN */
    uint8_t nat_mapped; /* 1 while ip_address is mapped to the owner's ip_address */
    request_t *ip_request;
    request_t *active_request;
    Client_lease *client_lease; /* the owner */
    llist_iterator_t link;      /* in the owner's server_leases */
};

/* A new record in no list, or null (traced) without a name or memory; null addresses become "0.0.0.0". */
ZEP_EXPORT Client_lease *zep_client_lease_create(const char *name, const char *ip_address, const char *subnet_mask,
                                                 int32_t client_id_offset);
/* Append at the tail: 1, or 0 when either is null. */
ZEP_EXPORT int zep_client_lease_append_to_list(llist_t *list, Client_lease *client_lease);
ZEP_EXPORT int zep_server_lease_append_to_list(llist_t *list, Server_lease *server_lease);
/* The first record with that name or id, or null. */
ZEP_EXPORT Client_lease *zep_client_lease_find(const llist_t *list, const char *name);
ZEP_EXPORT Server_lease *zep_server_lease_find(const llist_t *list, const char *id);
/* Back to having no WAN lease; devices, timers and watches stay. The mappings themselves are the caller's affair. */
ZEP_EXPORT void zep_client_lease_reinit(Client_lease *client_lease);
/* Releases everything that the record owns, and what of it is on its way to the store; neither frees the record nor
 * takes it out of its list. */
ZEP_EXPORT void zep_client_lease_cleanup(Client_lease *client_lease);
ZEP_EXPORT int zep_client_lease_has_stb(const Client_lease *client_lease);
ZEP_EXPORT int zep_client_lease_has_active_slease(const Client_lease *client_lease);
ZEP_EXPORT DhcpcState zep_client_lease_get_dhcpp_status(const char *text);

/* A new record in no list, or null (traced). With a handler, it is told of changes of the lease object's address. */
ZEP_EXPORT Server_lease *zep_server_lease_create(const char *id, DeviceType device_type, const char *ip_address,
                                                 const char *mac_address, const char *lease_path, int active,
                                                 request_reply_item_handler_t handler, Client_lease *client_lease);
/* Takes what a lease object reports anew: 1 when type, address or presence changed. */
ZEP_EXPORT int zep_server_lease_update(Server_lease *server_lease, DeviceType device_type, const char *ip_address,
                                       const char *lease_path, int active, request_reply_item_handler_t handler,
                                       Client_lease *client_lease);
/* Ends its watches and frees the record, which must be in no list any more. */
ZEP_EXPORT void zep_server_lease_cleanup(Server_lease *server_lease);
ZEP_EXPORT int zep_server_lease_is_active(const Server_lease *server_lease);
/* Opens the watch on the device's presence, once. */
ZEP_EXPORT void zep_server_lease_set_active_handler(Server_lease *server_lease, request_reply_item_handler_t handler);
/* From a type's name or a LAN pool's path. */
ZEP_EXPORT DeviceType zep_server_lease_device_type(const char *text);

/* The names under which the values are stored. */
const char *device_type_name(DeviceType type);
const char *lease_status_name(LeaseStatus status);

#endif

/*
 * The lease records in the data model, below "Keel.Zephyrin.ClientLease": written after each change, read back when the
 * routed mode starts. The records are the truth; nothing waits for a write.
 */
#ifndef ROUTED_LEASE_STORE_H
#define ROUTED_LEASE_STORE_H

#include "routed/lease.h"

/* Writes a Client_lease, creating its object (and those of its devices) when it is not stored yet. */
ZEP_EXPORT void zep_client_lease_obj_save(Client_lease *client_lease);
/* Writes a device of the Client_lease of that name; add creates its object. */
ZEP_EXPORT void zep_server_lease_obj_save(const char *client_name, const Server_lease *server_lease, int add);
/* Deletes a stored Client_lease with its devices: 1 when asked for, 0 for a null or empty name. */
ZEP_EXPORT int zep_client_lease_obj_delete(const char *name);
/* Deletes every stored Client_lease: 1 when the listing was sent. */
ZEP_EXPORT int zep_client_lease_obj_flush_all_instances(void);
/* Reads the stored records into the list: 1, or 0 for a null list. A stored record that is incomplete is deleted. */
ZEP_EXPORT int zep_client_lease_obj_parse(llist_t *list);
/* A Client_lease with its devices from its stored object, in no list; null (traced) when anything of it is missing. */
ZEP_EXPORT Client_lease *zep_client_lease_create_from_object(const object_t *object);

#endif

/*
 * The saves of lease records that are not answered yet. The record may be removed meanwhile: its saves are then
 * dropped, so that no answer finds it any more. The bus keeps the order, so a deletion sent after an addition is also
 * carried out after it.
 */
#ifndef ROUTED_LEASE_SAVES_H
#define ROUTED_LEASE_SAVES_H

#include "frame/helpers.h"

struct Client_lease;

/* Sends a probe or an addition on behalf of the record, and owns it until its handler finishes it. Without memory to
 * follow it the request is dropped (traced): its answer could not be told that the record is gone. */
void lease_save_send(request_t *request, const Client_lease *client_lease);
/* Destroys an answered or abandoned request and forgets it. */
void lease_save_finish(request_t *request);
/* The record goes: destroys all its saves that are still on their way. */
void lease_saves_forget(const Client_lease *client_lease);

#endif

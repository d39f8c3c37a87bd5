/*
 * Request helpers of the Keel host. Paths and descriptions are printf formats with their arguments; a path that comes
 * out longer than 255 characters is cut there.
 */
#ifndef PLATFORM_KEEL_H
#define PLATFORM_KEEL_H

#include "platform/hull.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Creates a request that writes parameters of an object, all or none. Null for an empty path. */
request_t *keel_request_create_setObject(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* Creates a get-object request on one object whose watch reports the whole object item anew whenever a parameter that
 * it names changes, and when the object appears again after it was missing; it gets no notifications. The second
 * argument is 0 in every use. */
request_t *keel_request_create_getObject(const char *format, uint32_t attributes, ...)
    __attribute__((format(printf, 1, 3)));
/* Creates a request that adds the instance named by the text after the last "."; a trailing "." lets the data model
 * name it. */
request_t *keel_request_create_addInstance(const char *format, ...) __attribute__((format(printf, 1, 2)));
request_t *keel_request_create_deleteInstance(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Takes the request over and sends it without waiting. A refusal is traced with path and reason and goes no further.
 * Owner is the unit's name, for keel_request_flush(). False for a null request. */
bool keel_request_push(const char *owner, sysbus_t *bus, request_t *request, const char *descriptionFormat, ...)
    __attribute__((format(printf, 4, 5)));
/* Sends and waits: the reply item handler has run for every item when it returns. The request stays the caller's to
 * destroy. False when it was refused (traced) or the request is null. */
bool keel_request_invoke(const char *owner, sysbus_t *bus, request_t *request, const char *descriptionFormat, ...)
    __attribute__((format(printf, 4, 5)));
/* Completes what was pushed under that owner and is still pending. */
void keel_request_flush(const char *owner);

#ifdef __cplusplus
}
#endif

#endif

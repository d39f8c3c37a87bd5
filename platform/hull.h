/*
 * The data-model bus client: requests, replies, watches, synchronous object calls, timers and processes.
 *
 * Everything runs on the host's single event loop, one handler at a time; nothing here is thread-safe or needs to be.
 *
 * Order. All that one plug-in sends travels one ordered connection: a request is carried out after everything that was
 * sent or pushed before it, and a synchronous call is carried out after everything still pending. Answers and
 * notifications reach their handlers on a later turn of the loop, never inside the call that caused them.
 *
 * Paths are texts of names joined by "."; the name of an instance may itself hold dots ("Weft.Intf.eth1.20"), the
 * longest instance name that exists is then meant.
 */
#ifndef PLATFORM_HULL_H
#define PLATFORM_HULL_H

#include "platform/rig.h"
#include "platform/variant.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct request request_t;
typedef struct request_parameter request_parameter_t;
typedef struct reply reply_t;
typedef struct reply_item reply_item_t;
typedef struct notification notification_t;
typedef struct notification_parameter notification_parameter_t;
typedef struct object object_t;
typedef struct parameter parameter_t;
typedef struct hull_timer hull_timer_t;
typedef struct connection connection_t;
typedef struct process process_t;

/* -------------------------------------------------------------------------------------------------- requests */

/* Bits of a get-object request's attributes that this host acts on; it ignores the others. A request with none of the
 * notify bits is a plain read: it gets its answer and then nothing more. */
enum {
    request_list_instances = 1 << 4, /* of a multi-instance object, also with depth 0 */
    request_notify_values = 1 << 6,  /* notification type 1 */
    request_notify_added = 1 << 7,   /* notification type 2 */
    request_notify_deleted = 1 << 8, /* notification type 3 */
    request_notify_custom = 1 << 9   /* notification types 101 and above */
};

/* Called for every item; returns true to go on. The two bus arguments are the sender and the receiver. */
typedef bool (*request_reply_item_handler_t)(request_t *request, reply_item_t *item, sysbus_t *from, sysbus_t *to,
                                             void *data);
/* Called once when the request is complete (its reply can then be walked with request_reply()). */
typedef bool (*request_done_handler_t)(request_t *request, sysbus_t *from, sysbus_t *to, void *data);

/* Creates a request for an object and what lies below it: depth -1 the whole subtree, 0 the object alone, n levels
 * otherwise (an instance counts as a level of its own). Once sent it is answered with one object item, or with one
 * error item when there is no such path, and then stays open as a watch on the path for what the attributes ask, down
 * to the same depth, until request_destroy(). When a watched path appears, or comes back after a deletion, an object
 * item reports it. Parameters added with a null value limit the report and the type 1 notifications to those names.
 * Returns null for a null or empty path. */
request_t *request_create_getObject(const char *path, int32_t depth, uint32_t attributes);
/* Creates a request that adds an instance below a multi-instance object; a null key lets the data model name it. The
 * index is 0 and attributes are 1 for every use. Null for a null or empty parent. */
request_t *request_create_addInstance(const char *parent, uint32_t index, const char *key, uint32_t attributes);
/* Adds a parameter: null names one to report, a value (copied) is one to write. False for a null name. */
bool request_addParameter(request_t *request, const char *name, const variant_t *value);
void request_setData(request_t *request, void *data);
void *request_data(const request_t *request);
void request_setReplyItemHandler(request_t *request, request_reply_item_handler_t handler);
void request_setDoneHandler(request_t *request, request_done_handler_t handler);
uint32_t request_attributes(const request_t *request);
void request_setAttributes(request_t *request, uint32_t attributes);
/* The path the request was created with, borrowed. */
const char *request_path(const request_t *request);
/* What came back so far; borrowed, never null for a request that was sent. */
reply_t *request_reply(request_t *request);
/* The first parameter added, or null; its name is borrowed. */
request_parameter_t *request_firstParameter(const request_t *request);
const char *request_parameterName(const request_parameter_t *parameter);
/* Ends the request: no handler of it is called any more, also not for what is already queued. Allowed inside its own
 * handlers. What was sent for it is still carried out. Null is accepted. */
void request_destroy(request_t *request);

/* Sends without waiting for the answer. Nonzero when sent; 0 for null or a request that was sent before and is no
 * get-object request (a get-object request that is sent again is answered again). */
bool hull_waitSendRequest(hull_t *hull, sysbus_t *bus, request_t *request);
bool hull_sendRequest(hull_t *hull, sysbus_t *bus, request_t *request);

/* --------------------------------------------------------------------------------------------------- replies */

enum { reply_type_object = 1, reply_type_notification = 2, reply_type_error = 3 };

/* 0 for null. */
uint32_t reply_item_type(const reply_item_t *item);
/* What the item carries, borrowed while the handler runs; null when it carries something else. */
object_t *reply_item_object(const reply_item_t *item);
notification_t *reply_item_notification(const reply_item_t *item);
/* Code, description and concerned path or parameter of an error item; 0 or "" otherwise. */
uint32_t reply_item_error(const reply_item_t *item);
const char *reply_item_errorDescription(const reply_item_t *item);
const char *reply_item_errorInfo(const reply_item_t *item);
/* Walks the items of a reply; null at the end. */
reply_item_t *reply_firstItem(const reply_t *reply);
reply_item_t *reply_nextItem(const reply_item_t *item);
/* Adds an error to the reply's errors; the host traces it with the request's path. */
bool reply_addError(reply_t *reply, uint32_t error, const char *description, const char *info);

enum {
    notification_value_changed = 1, /* parameters "parameter" and "newvalue"; the path is the object's */
    notification_instance_added = 2,
    notification_instance_deleted = 3, /* the path is the instance's */
    notification_custom = 100          /* above this: the object's own */
};

/* 0 for null. */
uint32_t notification_type(const notification_t *notification);
/* Borrowed; null for null. */
const char *notification_objectPath(const notification_t *notification);
/* A parameter of the notification, or null; its value is borrowed, null for null. */
notification_parameter_t *notification_getParameter(const notification_t *notification, const char *name);
const variant_t *notification_parameter_variant(const notification_parameter_t *parameter);

/* -------------------------------------------------------------------------------------------- object calls */

/* The object at a path with everything below it, or null. It is kept in the bus client's object cache, which follows
 * the data model; it stays valid until hull_cacheClear() or the end of the current turn of the loop, and is never freed
 * by the caller. */
object_t *hull_client_get_object(sysbus_t *bus, const char *path);
/* One value, borrowed like the object; null when there is no such object or parameter. */
const variant_t *hull_client_get(sysbus_t *bus, const char *path, const char *name);
parameter_t *hull_client_get_parameter(sysbus_t *bus, const char *path, const char *name);
/* Null for null. */
const variant_t *parameter_getValue(const parameter_t *parameter);
/* Writes every entry of the map to the object, all or none; nonzero when all were accepted. A refusal is traced. */
bool hull_client_set_object(sysbus_t *bus, const char *path, const variant_map_t *map);
/* Drops every cached object: pointers to them are then invalid, the next fetch reads the data model. */
void hull_cacheClear(hull_t *hull);

/* A child object by name or relative path; null when there is none or for a null object. The last two arguments are 1
 * and 0 in every use. */
object_t *object_getObject(object_t *object, const char *path, uint32_t attributes, bool *exact);
/* A parameter's value, borrowed; null when there is none or for a null object. */
const variant_t *object_parameterValue(const object_t *object, const char *name);
/* The instances of a multi-instance object in order; null at the end and for a null object. */
object_t *object_firstInstance(const object_t *object);
object_t *object_nextInstance(const object_t *instance);
/* The last name of the path, borrowed; null for null. Attributes are 1 in every use. */
const char *object_name(const object_t *object, uint32_t attributes);
/* The full path, newly allocated: release it with free(). Null for null. */
char *object_pathChar(const object_t *object, uint32_t attributes);
/* Copies all parameter values into a map that this call initialises; clean it up. False for null. */
bool object_getValues(const object_t *object, variant_map_t *values);
/* Marks an instance as deleted; object_commit() on its parent carries all such deletions out before it returns.
 * Null is accepted and does nothing (false). */
bool object_delete(object_t *object);
bool object_commit(object_t *object);

/* ---------------------------------------------------------------------------------------------------- timers */

typedef void (*hull_timer_handler_t)(hull_timer_t *timer, void *userData);

/* A stopped one-shot timer; null when out of memory. */
hull_timer_t *hull_timer_create(void);
void hull_timer_setUserData(hull_timer_t *timer, void *userData);
void hull_timer_setHandler(hull_timer_t *timer, hull_timer_handler_t handler);
/* Starts the timer, or restarts it with the new period. The handler runs once, on a later turn of the loop, also for
 * 0 ms. False for null. */
bool hull_timer_start(hull_timer_t *timer, uint32_t milliseconds);
/* Stops it; a handler that is already due is not called. False for null. */
bool hull_timer_stop(hull_timer_t *timer);
/* Stops and releases it, also inside its own handler. Null is accepted. */
void hull_timer_destroy(hull_timer_t *timer);
/* Runs the operation once after the delay, on a later turn of the loop, also for 0 ms. It cannot be called back. */
bool hull_timer_defer(void (*operation)(void *data), void *data, uint32_t milliseconds);

/* ------------------------------------------------------------------------------------------------- processes */

typedef bool (*process_exit_handler_t)(process_t *process);

connection_t *hull_connection(hull_t *hull);
/* A process object that runs nothing yet; null for a null connection. */
process_t *process_create(connection_t *connection);
/* Called on the loop after each run has ended; it may start the same object again, or destroy it. */
void process_setExitHandler(process_t *process, process_exit_handler_t handler);
/* Starts a program with its arguments, ended by a null; returns while it runs. The object runs one child at a time: a
 * start during a run queues up. False when it cannot be started (a queued one that fails later is traced). */
bool process_start(process_t *process, const char *program, ...) __attribute__((sentinel));
bool process_isRunning(const process_t *process);
/* Releases the object; queued runs are dropped, a child that runs is left to end, its exit is not reported. */
void process_destroy(process_t *process);

#ifdef __cplusplus
}
#endif

#endif

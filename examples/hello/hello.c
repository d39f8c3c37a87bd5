/* A plug-in of one sub-module: it traces the mode of the IPTV service when it starts, and whenever the mode changes. */
#include <stdlib.h>

#include "platform/keel.h"
#include "platform/trace.h"

static request_t *watch;

/* Called on the host's loop for every report of the watch; true goes on. */
static bool told(request_t *request, reply_item_t *item, sysbus_t *from, sysbus_t *to, void *data) {
    char *mode = variant_char(object_parameterValue(reply_item_object(item), "Mode"));
    (void)request, (void)from, (void)to, (void)data;
    if (mode) /* none when there is no such object */
        mastTraceZ(mast_level_info, "hello", "the mode is %s", mode);
    free(mode);
    return true;
}

static int start(void) {
    watch = keel_request_create_getObject("Keel.Zephyrin", 0);
    request_addParameter(watch, "Mode", NULL);
    request_setReplyItemHandler(watch, told);
    return hull_sendRequest(rig_getHull(), rig_getSysbus(), watch);
}

static void stop(void) {
    request_destroy(watch);
}

static ModuleDescriptor hello = {.name = "hello", .start = start, .stop = stop};

__attribute__((constructor)) static void announce(void) {
    rig_module_register(&hello);
}

#include "routed/lease_saves.h"

#include "frame/trace.h"

namespace {

const char zone[] = "lease";

struct Save {
    request_t *request;
    const Client_lease *client_lease;
    llist_iterator_t link;
};

LoadedList saves_in_flight;

} // namespace

void lease_save_send(request_t *request, const Client_lease *client_lease) {
    auto *save = static_cast<Save *>(calloc(1, sizeof(Save)));
    if (!save) {
        ZEP_ERROR(zone, "Failed to malloc Save");
        request_destroy(request);
        return;
    }
    save->request = request;
    save->client_lease = client_lease;
    llist_iterator_initialize(&save->link, save);
    llist_append(&saves_in_flight, &save->link);
    hull_sendRequest(rig_getHull(), rig_getSysbus(), request);
}

void lease_save_finish(request_t *request) {
    for (Save *save : RecordsOf<Save>(&saves_in_flight)) {
        if (save->request != request)
            continue;
        llist_iterator_take(&save->link);
        free(save);
    }
    request_destroy(request);
}

void lease_saves_forget(const Client_lease *client_lease) {
    for (Save *save : RecordsOf<Save>(&saves_in_flight)) {
        if (save->client_lease != client_lease)
            continue;
        request_destroy(save->request);
        llist_iterator_take(&save->link);
        free(save);
    }
}

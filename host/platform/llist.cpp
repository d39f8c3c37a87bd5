#include "platform/variant.h"

bool llist_initialize(llist_t *list) {
    if (!list)
        return false;
    *list = {nullptr, nullptr, 0};
    return true;
}

bool llist_iterator_initialize(llist_iterator_t *member, void *data) {
    if (!member)
        return false;
    *member = {nullptr, nullptr, nullptr, data};
    return true;
}

bool llist_append(llist_t *list, llist_iterator_t *member) {
    if (!list || !member)
        return false;
    llist_iterator_take(member);
    member->list = list;
    member->prev = list->tail;
    (list->tail ? list->tail->next : list->head) = member;
    list->tail = member;
    ++list->size;
    return true;
}

llist_iterator_t *llist_first(const llist_t *list) {
    return list ? list->head : nullptr;
}

llist_iterator_t *llist_iterator_next(const llist_iterator_t *member) {
    return member ? member->next : nullptr;
}

void llist_iterator_take(llist_iterator_t *member) {
    if (!member || !member->list)
        return;
    llist_t *list = member->list;
    (member->prev ? member->prev->next : list->head) = member->next;
    (member->next ? member->next->prev : list->tail) = member->prev;
    --list->size;
    member->next = member->prev = nullptr;
    member->list = nullptr;
}

llist_iterator_t *llist_takeFirst(llist_t *list) {
    llist_iterator_t *first = llist_first(list);
    llist_iterator_take(first);
    return first;
}

size_t llist_size(const llist_t *list) {
    return list ? list->size : 0;
}

/*
 * Small helpers that the plug-in's units share: guards for what the host wants released, parameters of requests, texts
 * with a fixed room.
 */
#ifndef FRAME_HELPERS_H
#define FRAME_HELPERS_H

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform/keel.h"

/* Operations that the plug-in exports. */
#define ZEP_EXPORT extern "C" __attribute__((visibility("default")))

enum {
    path_size = 256, /* object paths and shell command lines are cut at 255 characters */
    client_interface_size = 64
};

/* A newly allocated text of the host's. */
class OwnedText {
public:
    explicit OwnedText(char *text) : text_(text) {}
    OwnedText(const OwnedText &) = delete;
    OwnedText &operator=(const OwnedText &) = delete;
    ~OwnedText() { free(text_); }
    const char *get() const { return text_; }

private:
    char *text_;
};

/* A variant on the stack. */
class LocalVariant {
public:
    explicit LocalVariant(uint32_t type = variant_type_unknown) { variant_initialize(&variant_, type); }
    LocalVariant(const LocalVariant &) = delete;
    LocalVariant &operator=(const LocalVariant &) = delete;
    ~LocalVariant() { variant_cleanup(&variant_); }
    variant_t *get() { return &variant_; }

private:
    variant_t variant_;
};

/* A map on the stack. */
class LocalMap {
public:
    LocalMap() { variant_map_initialize(&map_); }
    LocalMap(const LocalMap &) = delete;
    LocalMap &operator=(const LocalMap &) = delete;
    ~LocalMap() { variant_map_cleanup(&map_); }
    variant_map_t *get() { return &map_; }

private:
    variant_map_t map_;
};

/* Adds a parameter to a request through a variant of its own; a value that cannot be set is left out. */
inline void add_text(request_t *request, const char *name, const char *value) {
    LocalVariant variant;
    if (variant_setChar(variant.get(), value))
        request_addParameter(request, name, variant.get());
}

inline void add_bool(request_t *request, const char *name, bool value) {
    LocalVariant variant;
    if (variant_setBool(variant.get(), value))
        request_addParameter(request, name, variant.get());
}

inline void add_int32(request_t *request, const char *name, int32_t value) {
    LocalVariant variant;
    if (variant_setInt32(variant.get(), value))
        request_addParameter(request, name, variant.get());
}

inline void add_uint8(request_t *request, const char *name, uint8_t value) {
    LocalVariant variant;
    if (variant_setUInt8(variant.get(), value))
        request_addParameter(request, name, variant.get());
}

/* The text of an object's parameter, borrowed, or null. */
inline const char *object_text(const object_t *object, const char *name) {
    return variant_da_char(object_parameterValue(object, name));
}

/* The text of a notification's parameter, borrowed, or null. */
inline const char *notification_text(const notification_t *notification, const char *name) {
    return variant_da_char(notification_parameter_variant(notification_getParameter(notification, name)));
}

/* Copies a text into a field, cut to its room, always terminated. */
template <size_t Size> void copy_text(char (&field)[Size], const char *text) {
    snprintf(field, Size, "%s", text);
}

template <size_t Size>
__attribute__((format(printf, 2, 3))) void format_text(char (&field)[Size], const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(field, Size, format, arguments);
    va_end(arguments);
}

/* The place of a text in a table of names, exactly; the table's size for null and for any other text. */
template <size_t Size> uint32_t index_of_text(const char *const (&names)[Size], const char *text) {
    uint32_t index = 0;
    while (index < Size && (!text || strcmp(names[index], text) != 0))
        ++index;
    return index;
}

inline bool is_empty(const char *text) {
    return !text || !*text;
}

/* Whether a name may stand in a shell line: letters, digits and what else interface names are made of. */
inline bool is_interface_name(const char *name) {
    return !is_empty(name) &&
           name[strspn(name, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:@")] == '\0';
}

/* A list that is there from the load on: empty, whatever an empty one looks like on the host. */
struct LoadedList : llist_t {
    LoadedList() : llist_t() { llist_initialize(this); }
};

/* The records of a list, in order. The next one is taken before the current one is handed out, so that it may go. */
template <typename Record> class RecordsOf {
public:
    class Iterator {
    public:
        explicit Iterator(llist_iterator_t *member) : member_(member), next_(after(member)) {}
        Record *operator*() const { return static_cast<Record *>(member_->data); }
        Iterator &operator++() {
            member_ = next_;
            next_ = after(member_);
            return *this;
        }
        bool operator!=(const Iterator &other) const { return member_ != other.member_; }

    private:
        static llist_iterator_t *after(llist_iterator_t *member) {
            return member ? llist_iterator_next(member) : nullptr;
        }

        llist_iterator_t *member_;
        llist_iterator_t *next_;
    };

    explicit RecordsOf(const llist_t *list) : list_(list) {}
    Iterator begin() const { return Iterator(llist_first(list_)); }
    Iterator end() const { return Iterator(nullptr); }

private:
    const llist_t *list_;
};

#endif

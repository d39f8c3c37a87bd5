#include "platform/variant.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct variant_list_iterator {
    llist_iterator_t link;
    variant_t value;
};

struct variant_map_iterator {
    llist_iterator_t link;
    char *key;
    variant_t value;
};

namespace {

template <typename T> T *allocate() {
    return static_cast<T *>(std::calloc(1, sizeof(T)));
}

bool is_signed(uint32_t type) {
    return type >= variant_type_int8 && type <= variant_type_int64;
}
bool is_unsigned(uint32_t type) {
    return type >= variant_type_uint8 && type <= variant_type_uint64;
}

bool set_integer(variant_t *variant, uint32_t type, int64_t value) {
    if (!variant)
        return false;
    variant_cleanup(variant);
    variant->type = type;
    variant->as.integer = value;
    return true;
}

bool set_cardinal(variant_t *variant, uint32_t type, uint64_t value) {
    if (!variant)
        return false;
    variant_cleanup(variant);
    variant->type = type;
    variant->as.cardinal = value;
    return true;
}

/* The number inside, whatever its width; texts convert when they are a decimal number. */
bool number_of(const variant_t *variant, int64_t *number) {
    if (!variant)
        return false;
    if (is_signed(variant->type))
        *number = variant->as.integer;
    else if (is_unsigned(variant->type))
        *number = static_cast<int64_t>(variant->as.cardinal);
    else if (variant->type == variant_type_bool)
        *number = variant->as.boolean ? 1 : 0;
    else if (const char *text = variant_da_char(variant)) {
        char *end = nullptr;
        errno = 0;
        *number = std::strtoll(text, &end, 10);
        return end != text && *end == '\0' && errno == 0;
    } else
        return false;
    return true;
}

bool copy_entries(variant_list_t *to, const variant_list_t *from) {
    for (auto *it = variant_list_first(from); it; it = variant_list_iterator_next(it)) {
        auto *element = allocate<variant_list_iterator>();
        if (!element)
            return false;
        llist_iterator_initialize(&element->link, element);
        llist_append(to, &element->link);
        if (!variant_copy(&element->value, &it->value))
            return false;
    }
    return true;
}

bool copy_map(variant_map_t *to, const variant_map_t *from) {
    for (auto *it = variant_map_first(from); it; it = variant_map_iterator_next(it))
        if (!variant_map_add(to, it->key, &it->value))
            return false;
    return true;
}

bool equal(const variant_t *a, const variant_t *b);

bool equal_lists(const variant_list_t *a, const variant_list_t *b) {
    auto *x = variant_list_first(a);
    auto *y = variant_list_first(b);
    while (x && y && equal(&x->value, &y->value)) {
        x = variant_list_iterator_next(x);
        y = variant_list_iterator_next(y);
    }
    return !x && !y;
}

bool equal(const variant_t *a, const variant_t *b) {
    const bool numbers = (is_signed(a->type) || is_unsigned(a->type)) && (is_signed(b->type) || is_unsigned(b->type));
    if (numbers) {
        int64_t x = 0;
        int64_t y = 0;
        number_of(a, &x);
        number_of(b, &y);
        /* From 2^63 on an unsigned number shows here as a negative one. */
        return x == y && (x >= 0 || is_signed(a->type) == is_signed(b->type));
    }
    if (a->type != b->type)
        return false;
    switch (a->type) {
    case variant_type_string:
        return std::strcmp(variant_da_char(a), variant_da_char(b)) == 0;
    case variant_type_bool:
        return a->as.boolean == b->as.boolean;
    case variant_type_list:
        return equal_lists(a->as.list, b->as.list);
    case variant_type_map: {
        int result = 1;
        return variant_map_compare(a->as.map, b->as.map, &result) && result == 0;
    }
    default:
        return true;
    }
}

const variant_t constant_true = {variant_type_bool, {.boolean = true}};
const variant_t constant_false = {variant_type_bool, {.boolean = false}};

} // namespace

const variant_t *const variant_true = &constant_true;
const variant_t *const variant_false = &constant_false;

/* ---------------------------------------------------------------------------------------------- text holders */

bool string_initialize(string_t *string, size_t capacity) {
    if (!string)
        return false;
    *string = {static_cast<char *>(std::calloc(1, capacity + 1)), 0, capacity};
    return string->buffer != nullptr;
}

bool string_appendChar(string_t *string, const char *text) {
    if (!string)
        return false;
    const size_t length = text ? std::strlen(text) : 0;
    if (!string->buffer || string->length + length > string->capacity) {
        const size_t capacity = std::max(string->length + length, 2 * string->capacity);
        auto *buffer = static_cast<char *>(std::realloc(string->buffer, capacity + 1));
        if (!buffer)
            return false;
        string->buffer = buffer;
        string->capacity = capacity;
    }
    if (length)
        std::memcpy(string->buffer + string->length, text, length);
    string->length += length;
    string->buffer[string->length] = '\0';
    return true;
}

const char *string_buffer(const string_t *string) {
    return string ? string->buffer : nullptr;
}

void string_cleanup(string_t *string) {
    if (!string)
        return;
    std::free(string->buffer);
    *string = {nullptr, 0, 0};
}

/* -------------------------------------------------------------------------------------------------- variants */

bool variant_initialize(variant_t *variant, uint32_t type) {
    if (!variant)
        return false;
    std::memset(variant, 0, sizeof *variant);
    switch (type) {
    case variant_type_unknown:
        return true;
    case variant_type_string:
        return variant_setChar(variant, "");
    case variant_type_list:
        variant->as.list = allocate<variant_list_t>();
        if (!variant->as.list)
            return false;
        break;
    case variant_type_map:
        variant->as.map = allocate<variant_map_t>();
        if (!variant->as.map)
            return false;
        break;
    default:
        if (type != variant_type_bool && !is_signed(type) && !is_unsigned(type))
            return false;
    }
    variant->type = type;
    return true;
}

void variant_cleanup(variant_t *variant) {
    if (!variant)
        return;
    if (variant->type == variant_type_string) {
        string_cleanup(variant->as.string);
        std::free(variant->as.string);
    } else if (variant->type == variant_type_list) {
        variant_list_cleanup(variant->as.list);
        std::free(variant->as.list);
    } else if (variant->type == variant_type_map) {
        variant_map_cleanup(variant->as.map);
        std::free(variant->as.map);
    }
    std::memset(variant, 0, sizeof *variant);
}

uint32_t variant_type(const variant_t *variant) {
    return variant ? variant->type : 0;
}

bool variant_copy(variant_t *dest, const variant_t *source) {
    if (!dest || !source)
        return false;
    variant_t copy{};
    bool done = true;
    switch (source->type) {
    case variant_type_string:
        done = variant_setChar(&copy, variant_da_char(source));
        break;
    case variant_type_list:
        done = variant_initialize(&copy, variant_type_list) && copy_entries(copy.as.list, source->as.list);
        break;
    case variant_type_map:
        done = variant_initialize(&copy, variant_type_map) && copy_map(copy.as.map, source->as.map);
        break;
    default:
        copy = *source;
    }
    variant_cleanup(dest);
    if (done)
        *dest = copy;
    else
        variant_cleanup(&copy);
    return done;
}

bool variant_setChar(variant_t *variant, const char *text) {
    if (!variant)
        return false;
    auto *string = allocate<string_t>();
    if (!string)
        return false;
    if (!string_initialize(string, text ? std::strlen(text) : 0) || !string_appendChar(string, text)) {
        string_cleanup(string);
        std::free(string);
        return false;
    }
    variant_cleanup(variant);
    variant->type = variant_type_string;
    variant->as.string = string;
    return true;
}

bool variant_setBool(variant_t *variant, bool value) {
    if (!variant)
        return false;
    variant_cleanup(variant);
    variant->type = variant_type_bool;
    variant->as.boolean = value;
    return true;
}

bool variant_setInt32(variant_t *variant, int32_t value) {
    return set_integer(variant, variant_type_int32, value);
}
bool variant_setUInt8(variant_t *variant, uint8_t value) {
    return set_cardinal(variant, variant_type_uint8, value);
}
bool variant_setUInt16(variant_t *variant, uint16_t value) {
    return set_cardinal(variant, variant_type_uint16, value);
}
bool variant_setUInt32(variant_t *variant, uint32_t value) {
    return set_cardinal(variant, variant_type_uint32, value);
}
bool variant_setUInt64(variant_t *variant, uint64_t value) {
    return set_cardinal(variant, variant_type_uint64, value);
}

const char *variant_da_char(const variant_t *variant) {
    return string_buffer(variant_da_string(variant));
}

char *variant_char(const variant_t *variant) {
    if (!variant)
        return nullptr;
    if (variant->type == variant_type_string)
        return strdup(variant_da_char(variant));
    if (variant->type == variant_type_bool)
        return strdup(variant->as.boolean ? "true" : "false");
    char text[24];
    if (is_signed(variant->type))
        std::snprintf(text, sizeof text, "%lld", static_cast<long long>(variant->as.integer));
    else if (is_unsigned(variant->type))
        std::snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(variant->as.cardinal));
    else
        return nullptr;
    return strdup(text);
}

bool variant_bool(const variant_t *variant) {
    const char *text = variant_da_char(variant);
    if (text && std::strcmp(text, "true") == 0)
        return true;
    int64_t number = 0;
    return number_of(variant, &number) && number != 0;
}

int32_t variant_int32(const variant_t *variant) {
    int64_t number = 0;
    return number_of(variant, &number) ? static_cast<int32_t>(number) : 0;
}

uint8_t variant_uint8(const variant_t *variant) {
    int64_t number = 0;
    return number_of(variant, &number) ? static_cast<uint8_t>(number) : 0;
}

uint32_t variant_uint32(const variant_t *variant) {
    int64_t number = 0;
    return number_of(variant, &number) ? static_cast<uint32_t>(number) : 0;
}

variant_list_t *variant_da_list(const variant_t *variant) {
    return variant && variant->type == variant_type_list ? variant->as.list : nullptr;
}

variant_map_t *variant_da_map(const variant_t *variant) {
    return variant && variant->type == variant_type_map ? variant->as.map : nullptr;
}

string_t *variant_da_string(const variant_t *variant) {
    return variant && variant->type == variant_type_string ? variant->as.string : nullptr;
}

bool variant_toMap(variant_map_t *map, const variant_t *variant) {
    if (!map)
        return false;
    variant_map_cleanup(map);
    const variant_map_t *source = variant_da_map(variant);
    return source && copy_map(map, source);
}

/* ----------------------------------------------------------------------------------------------------- lists */

bool variant_list_initialize(variant_list_t *list) {
    return llist_initialize(list);
}

void variant_list_cleanup(variant_list_t *list) {
    while (llist_iterator_t *link = llist_takeFirst(list)) {
        auto *element = static_cast<variant_list_iterator *>(link->data);
        variant_cleanup(&element->value);
        std::free(element);
    }
}

variant_list_iterator_t *variant_list_first(const variant_list_t *list) {
    const llist_iterator_t *link = llist_first(list);
    return link ? static_cast<variant_list_iterator_t *>(link->data) : nullptr;
}

variant_list_iterator_t *variant_list_iterator_next(const variant_list_iterator_t *iterator) {
    const llist_iterator_t *link = iterator ? llist_iterator_next(&iterator->link) : nullptr;
    return link ? static_cast<variant_list_iterator_t *>(link->data) : nullptr;
}

variant_t *variant_list_iterator_data(const variant_list_iterator_t *iterator) {
    return iterator ? const_cast<variant_t *>(&iterator->value) : nullptr;
}

size_t variant_list_size(const variant_list_t *list) {
    return llist_size(list);
}

bool variant_list_add(variant_list_t *list, const variant_t *value) {
    if (!list || !value)
        return false;
    auto *element = allocate<variant_list_iterator>();
    if (!element || !variant_copy(&element->value, value)) {
        std::free(element);
        return false;
    }
    llist_iterator_initialize(&element->link, element);
    return llist_append(list, &element->link);
}

bool variant_list_addChar(variant_list_t *list, const char *text) {
    variant_t value{};
    const bool done = variant_setChar(&value, text) && variant_list_add(list, &value);
    variant_cleanup(&value);
    return done;
}

bool variant_list_addMapCopy(variant_list_t *list, const variant_map_t *map) {
    const variant_t value = {variant_type_map, {.map = const_cast<variant_map_t *>(map)}};
    return map && variant_list_add(list, &value);
}

/* ------------------------------------------------------------------------------------------------------ maps */

bool variant_map_initialize(variant_map_t *map) {
    return llist_initialize(map);
}

void variant_map_cleanup(variant_map_t *map) {
    while (llist_iterator_t *link = llist_takeFirst(map)) {
        auto *entry = static_cast<variant_map_iterator *>(link->data);
        variant_cleanup(&entry->value);
        std::free(entry->key);
        std::free(entry);
    }
}

bool variant_map_add(variant_map_t *map, const char *key, const variant_t *value) {
    if (!map || !key || !value)
        return false;
    if (variant_map_iterator_t *existing = variant_map_find(map, key))
        return variant_copy(&existing->value, value);
    auto *entry = allocate<variant_map_iterator>();
    if (!entry)
        return false;
    entry->key = strdup(key);
    if (!entry->key || !variant_copy(&entry->value, value)) {
        std::free(entry->key);
        std::free(entry);
        return false;
    }
    llist_iterator_initialize(&entry->link, entry);
    return llist_append(map, &entry->link);
}

bool variant_map_addBool(variant_map_t *map, const char *key, bool value) {
    return variant_map_add(map, key, value ? variant_true : variant_false);
}

bool variant_map_addChar(variant_map_t *map, const char *key, const char *value) {
    variant_t text{};
    const bool done = variant_setChar(&text, value) && variant_map_add(map, key, &text);
    variant_cleanup(&text);
    return done;
}

bool variant_map_addUInt8(variant_map_t *map, const char *key, uint8_t value) {
    const variant_t number = {variant_type_uint8, {.cardinal = value}};
    return variant_map_add(map, key, &number);
}

bool variant_map_addUInt32(variant_map_t *map, const char *key, uint32_t value) {
    const variant_t number = {variant_type_uint32, {.cardinal = value}};
    return variant_map_add(map, key, &number);
}

bool variant_map_addMapCopy(variant_map_t *map, const char *key, const variant_map_t *value) {
    const variant_t inner = {variant_type_map, {.map = const_cast<variant_map_t *>(value)}};
    return value && variant_map_add(map, key, &inner);
}

variant_map_iterator_t *variant_map_first(const variant_map_t *map) {
    const llist_iterator_t *link = llist_first(map);
    return link ? static_cast<variant_map_iterator_t *>(link->data) : nullptr;
}

variant_map_iterator_t *variant_map_iterator_next(const variant_map_iterator_t *iterator) {
    const llist_iterator_t *link = iterator ? llist_iterator_next(&iterator->link) : nullptr;
    return link ? static_cast<variant_map_iterator_t *>(link->data) : nullptr;
}

variant_map_iterator_t *variant_map_find(const variant_map_t *map, const char *key) {
    if (!key)
        return nullptr;
    variant_map_iterator_t *entry = variant_map_first(map);
    while (entry && std::strcmp(entry->key, key) != 0)
        entry = variant_map_iterator_next(entry);
    return entry;
}

const char *variant_map_iterator_key(const variant_map_iterator_t *iterator) {
    return iterator ? iterator->key : nullptr;
}

variant_t *variant_map_iterator_data(const variant_map_iterator_t *iterator) {
    return iterator ? const_cast<variant_t *>(&iterator->value) : nullptr;
}

bool variant_map_iterator_setKey(variant_map_iterator_t *iterator, const char *key) {
    if (!iterator || !key)
        return false;
    const variant_map_iterator_t *taken = variant_map_find(iterator->link.list, key);
    if (taken)
        return taken == iterator;
    char *copy = strdup(key);
    if (!copy)
        return false;
    std::free(iterator->key);
    iterator->key = copy;
    return true;
}

bool variant_map_compare(const variant_map_t *a, const variant_map_t *b, int *result) {
    if (!a || !b || !result)
        return false;
    *result = llist_size(a) == llist_size(b) ? 0 : 1;
    for (auto *entry = variant_map_first(a); entry && *result == 0; entry = variant_map_iterator_next(entry)) {
        const variant_map_iterator_t *other = variant_map_find(b, entry->key);
        if (!other || !equal(&entry->value, &other->value))
            *result = 1;
    }
    return true;
}

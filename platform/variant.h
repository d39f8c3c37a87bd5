/*
 * Values of the data model: variants, the lists and maps that they hold, text holders and intrusive lists.
 *
 * Every type here may stand on the stack or inside a record; "initialize" comes before the first use and "cleanup"
 * releases what the value holds, never the value itself. All operations belong to the host's event loop thread.
 */
#ifndef PLATFORM_VARIANT_H
#define PLATFORM_VARIANT_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------- intrusive lists */

typedef struct llist llist_t;
typedef struct llist_iterator llist_iterator_t;

/* A list member: embedded in the record that it links. */
struct llist_iterator {
    llist_iterator_t *next;
    llist_iterator_t *prev;
    llist_t *list; /* the list that holds the member, null while it is in none */
    void *data;    /* the record, as given to llist_iterator_initialize() */
};

struct llist {
    llist_iterator_t *head;
    llist_iterator_t *tail;
    size_t size;
};

/* Makes the list empty without looking at what it held. False for a null list. */
bool llist_initialize(llist_t *list);
/* Prepares a member that is in no list; data is the record that it stands for. False for a null member. */
bool llist_iterator_initialize(llist_iterator_t *member, void *data);
/* Appends at the tail; a member of another list is taken out of that one first. False for a null argument. */
bool llist_append(llist_t *list, llist_iterator_t *member);
/* The first member, or null for an empty or null list. */
llist_iterator_t *llist_first(const llist_t *list);
/* The member after this one, or null at the end. */
llist_iterator_t *llist_iterator_next(const llist_iterator_t *member);
/* Takes the member out of its list, if it is in one. The record stays as it is. */
void llist_iterator_take(llist_iterator_t *member);
/* Takes the first member out and returns it, or null for an empty list. */
llist_iterator_t *llist_takeFirst(llist_t *list);
/* The number of members; 0 for null. */
size_t llist_size(const llist_t *list);

/* ---------------------------------------------------------------------------------------------- text holders */

typedef struct string {
    char *buffer; /* NUL-terminated, or null while nothing was reserved */
    size_t length;
    size_t capacity;
} string_t;

/* Starts an empty text with room for capacity characters. False when out of memory or for null. */
bool string_initialize(string_t *string, size_t capacity);
/* Appends a text (null appends nothing) and grows as needed. False when out of memory. */
bool string_appendChar(string_t *string, const char *text);
/* The text, borrowed until the next change; null for a null or never filled holder. */
const char *string_buffer(const string_t *string);
/* Releases the text; the holder may be initialised again. Null is accepted. */
void string_cleanup(string_t *string);

/* -------------------------------------------------------------------------------------------------- variants */

typedef enum variant_type {
    variant_type_unknown = 0, /* nothing held yet; the first setter decides */
    variant_type_string = 1,
    variant_type_int8 = 2,
    variant_type_int16 = 3,
    variant_type_int32 = 4,
    variant_type_int64 = 5,
    variant_type_uint8 = 6,
    variant_type_uint16 = 7,
    variant_type_uint32 = 8,
    variant_type_uint64 = 9,
    variant_type_bool = 10,
    variant_type_list = 13,
    variant_type_map = 14
} variant_type_t;

typedef llist_t variant_list_t;
typedef llist_t variant_map_t;
typedef struct variant_list_iterator variant_list_iterator_t;
typedef struct variant_map_iterator variant_map_iterator_t;

typedef struct variant {
    uint32_t type; /* variant_type_t */
    union {
        bool boolean;
        int64_t integer;      /* the signed types */
        uint64_t cardinal;    /* the unsigned types */
        string_t *string;     /* owned */
        variant_list_t *list; /* owned */
        variant_map_t *map;   /* owned */
    } as;
} variant_t;

/* Starts a variant: type 0, or a type whose empty value it then holds (0, "", an empty list or map). False when out of
 * memory, for null, or for an unknown type. */
bool variant_initialize(variant_t *variant, uint32_t type);
/* Releases the contents; the variant is then of type 0. Null is accepted. */
void variant_cleanup(variant_t *variant);
/* The type code; 0 for null. */
uint32_t variant_type(const variant_t *variant);
/* Replaces the contents of dest by a deep copy of source. False for null or when out of memory (dest is then empty). */
bool variant_copy(variant_t *dest, const variant_t *source);

/* Setters: each replaces contents and type. False for null or when out of memory. A null text is stored as "". */
bool variant_setChar(variant_t *variant, const char *text);
bool variant_setBool(variant_t *variant, bool value);
bool variant_setInt32(variant_t *variant, int32_t value);
bool variant_setUInt8(variant_t *variant, uint8_t value);
bool variant_setUInt16(variant_t *variant, uint16_t value);
bool variant_setUInt32(variant_t *variant, uint32_t value);
bool variant_setUInt64(variant_t *variant, uint64_t value);

/* The text inside, borrowed; null for null or for a variant that holds no text. */
const char *variant_da_char(const variant_t *variant);
/* The contents as a newly allocated text (numbers in decimal, booleans "true"/"false"); release it with free(). Null
 * for null, for type 0, for a list or a map. */
char *variant_char(const variant_t *variant);
/* Conversions: false or 0 for null and for contents that do not convert. Texts convert ("true"/"1"; decimal numbers);
 * numbers out of range are cut to the result's width. */
bool variant_bool(const variant_t *variant);
int32_t variant_int32(const variant_t *variant);
uint8_t variant_uint8(const variant_t *variant);
uint32_t variant_uint32(const variant_t *variant);
/* The contained value, borrowed; null when the variant is null or holds something else. */
variant_list_t *variant_da_list(const variant_t *variant);
variant_map_t *variant_da_map(const variant_t *variant);
string_t *variant_da_string(const variant_t *variant);
/* Replaces the contents of map, which must be initialised, by a copy of the map inside variant. False when variant
 * holds no map (the target is then empty). */
bool variant_toMap(variant_map_t *map, const variant_t *variant);

/* ----------------------------------------------------------------------------------------------------- lists */

bool variant_list_initialize(variant_list_t *list);
/* Releases every element; the list is then empty. Null is accepted. */
void variant_list_cleanup(variant_list_t *list);
variant_list_iterator_t *variant_list_first(const variant_list_t *list);
variant_list_iterator_t *variant_list_iterator_next(const variant_list_iterator_t *iterator);
/* The element, borrowed; null for null. */
variant_t *variant_list_iterator_data(const variant_list_iterator_t *iterator);
size_t variant_list_size(const variant_list_t *list);
/* Append copies. False for a null argument or when out of memory. */
bool variant_list_add(variant_list_t *list, const variant_t *value);
bool variant_list_addChar(variant_list_t *list, const char *text);
bool variant_list_addMapCopy(variant_list_t *list, const variant_map_t *map);

/* ------------------------------------------------------------------------------------------------------ maps */

/* Entries keep the order in which they were added; keys are unique. */
bool variant_map_initialize(variant_map_t *map);
/* Releases every entry; the map is then empty. Null is accepted. */
void variant_map_cleanup(variant_map_t *map);
/* Add or replace an entry. False for a null argument or when out of memory. */
bool variant_map_add(variant_map_t *map, const char *key, const variant_t *value);
bool variant_map_addBool(variant_map_t *map, const char *key, bool value);
bool variant_map_addChar(variant_map_t *map, const char *key, const char *value);
bool variant_map_addUInt8(variant_map_t *map, const char *key, uint8_t value);
bool variant_map_addUInt32(variant_map_t *map, const char *key, uint32_t value);
bool variant_map_addMapCopy(variant_map_t *map, const char *key, const variant_map_t *value);
/* The entry with this key, or null. */
variant_map_iterator_t *variant_map_find(const variant_map_t *map, const char *key);
variant_map_iterator_t *variant_map_first(const variant_map_t *map);
variant_map_iterator_t *variant_map_iterator_next(const variant_map_iterator_t *iterator);
/* Key and value of an entry, borrowed; null for null. */
const char *variant_map_iterator_key(const variant_map_iterator_t *iterator);
variant_t *variant_map_iterator_data(const variant_map_iterator_t *iterator);
/* Renames an entry. False for null, for a key already taken, or when out of memory. */
bool variant_map_iterator_setKey(variant_map_iterator_t *iterator, const char *key);
/* Compares two maps, whatever the order of their entries; numbers compare by value, whatever their width. True when
 * the comparison could be made, with *result 0 for equal maps and another value otherwise. */
bool variant_map_compare(const variant_map_t *a, const variant_map_t *b, int *result);

/* Constants for parameters that are always true or false. */
extern const variant_t *const variant_true;
extern const variant_t *const variant_false;

#ifdef __cplusplus
}
#endif

#endif

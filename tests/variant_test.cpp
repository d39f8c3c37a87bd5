/* Values as the plug-in keeps, converts, copies and compares them. */
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "platform/variant.h"

namespace {

/* The contents as a text, "(null)" for none. */
std::string text_of(const variant_t *variant) {
    char *text = variant_char(variant);
    std::string copy = text ? text : "(null)";
    std::free(text);
    return copy;
}

std::string keys_of(const variant_map_t *map) {
    std::string keys;
    for (auto *it = variant_map_first(map); it; it = variant_map_iterator_next(it))
        keys += std::string(variant_map_iterator_key(it)) + " ";
    return keys;
}

/* One route as a map. */
void fill_route(variant_map_t *map, const char *destination, std::uint32_t prefix) {
    variant_map_initialize(map);
    variant_map_addChar(map, "Destination", destination);
    variant_map_addUInt32(map, "PrefixLength", prefix);
}

} // namespace

TEST(Variant, ConvertsBetweenTextsNumbersAndBooleans) {
    struct Case {
        const char *text;
        bool boolean;
        std::int32_t number;
        std::uint8_t small;
    };
    for (const Case &one :
         {Case{"", false, 0, 0}, Case{"true", true, 0, 0}, Case{"false", false, 0, 0}, Case{"1", true, 1, 1},
          Case{"0", false, 0, 0}, Case{"-5", true, -5, 251}, Case{"300", true, 300, 44}, Case{"12x", false, 0, 0},
          Case{"x", false, 0, 0}, Case{"99999999999999999999", false, 0, 0}}) {
        variant_t text{};
        variant_setChar(&text, one.text);
        EXPECT_EQ(variant_bool(&text), one.boolean) << one.text;
        EXPECT_EQ(variant_int32(&text), one.number) << one.text;
        EXPECT_EQ(variant_uint8(&text), one.small) << one.text;
        variant_cleanup(&text);
    }
    variant_t value{};
    variant_initialize(&value, variant_type_unknown);
    EXPECT_EQ(text_of(&value), "(null)");
    variant_setInt32(&value, -7);
    EXPECT_EQ(text_of(&value), "-7");
    EXPECT_EQ(variant_uint32(&value), 4294967289U);
    EXPECT_EQ(variant_da_char(&value), nullptr) << "a number is not borrowed as a text";
    variant_setUInt64(&value, UINT64_MAX);
    EXPECT_EQ(text_of(&value), "18446744073709551615");
    variant_setBool(&value, true);
    EXPECT_EQ(text_of(&value), "true");
    EXPECT_EQ(variant_int32(&value), 1);
    variant_setChar(&value, nullptr);
    EXPECT_STREQ(variant_da_char(&value), "");
    variant_setChar(&value, "own");
    variant_setChar(&value, variant_da_char(&value) + 1); /* a part of itself */
    EXPECT_STREQ(variant_da_char(&value), "wn");
    EXPECT_EQ(variant_da_list(&value), nullptr);
    EXPECT_EQ(variant_da_map(&value), nullptr);
    variant_cleanup(&value);
    EXPECT_EQ(variant_type(&value), 0U);

    EXPECT_EQ(variant_type(nullptr), 0U);
    EXPECT_FALSE(variant_bool(nullptr));
    EXPECT_EQ(variant_da_char(nullptr), nullptr);
    EXPECT_EQ(variant_char(nullptr), nullptr);
    EXPECT_FALSE(variant_copy(&value, nullptr));
    EXPECT_FALSE(variant_initialize(&value, 99));
    variant_cleanup(nullptr);
}

TEST(Variant, CopiesAreDeep) {
    variant_t routes{};
    ASSERT_TRUE(variant_initialize(&routes, variant_type_list));
    for (const char *destination : {"10.0.0.0", "10.1.0.0"}) {
        variant_map_t route{};
        fill_route(&route, destination, 16);
        EXPECT_TRUE(variant_list_addMapCopy(variant_da_list(&routes), &route));
        variant_map_cleanup(&route);
    }
    variant_t copy{};
    ASSERT_TRUE(variant_copy(&copy, &routes));
    ASSERT_TRUE(variant_copy(&copy, &copy)) << "onto itself";
    variant_cleanup(&routes);
    std::string destinations;
    for (auto *it = variant_list_first(variant_da_list(&copy)); it; it = variant_list_iterator_next(it)) {
        const variant_map_t *route = variant_da_map(variant_list_iterator_data(it));
        destinations += text_of(variant_map_iterator_data(variant_map_find(route, "Destination"))) + " ";
    }
    EXPECT_EQ(destinations, "10.0.0.0 10.1.0.0 ");

    variant_map_t map{};
    variant_map_initialize(&map);
    variant_map_addChar(&map, "old", "entry");
    EXPECT_FALSE(variant_toMap(&map, &copy)) << "a list";
    EXPECT_TRUE(variant_toMap(&map, variant_list_iterator_data(variant_list_first(variant_da_list(&copy)))));
    EXPECT_EQ(keys_of(&map), "Destination PrefixLength ") << "what it held before is gone";
    variant_map_cleanup(&map);
    variant_list_cleanup(variant_da_list(&copy));
    EXPECT_EQ(variant_list_size(variant_da_list(&copy)), 0U);
    variant_cleanup(&copy);
}

TEST(Variant, MapsKeepTheirOrderAndTheirKeysUnique) {
    variant_map_t map{};
    variant_map_initialize(&map);
    for (const char *key : {"c", "a", "b"})
        variant_map_addChar(&map, key, key);
    variant_map_addBool(&map, "a", true); /* in place */
    EXPECT_EQ(keys_of(&map), "c a b ");
    EXPECT_TRUE(variant_bool(variant_map_iterator_data(variant_map_find(&map, "a"))));
    EXPECT_FALSE(variant_map_iterator_setKey(variant_map_find(&map, "a"), "b")) << "taken";
    EXPECT_TRUE(variant_map_iterator_setKey(variant_map_find(&map, "a"), "Router"));
    EXPECT_EQ(keys_of(&map), "c Router b ");
    EXPECT_EQ(variant_map_find(&map, "a"), nullptr);
    EXPECT_FALSE(variant_map_addChar(&map, nullptr, "x"));
    EXPECT_FALSE(variant_map_addChar(nullptr, "x", "x"));
    EXPECT_EQ(variant_map_iterator_data(nullptr), nullptr);
    variant_map_cleanup(&map);
    EXPECT_EQ(keys_of(&map), "");
}

TEST(Variant, MapsCompareByValue) {
    variant_map_t a{};
    variant_map_t b{};
    int result = -1;
    fill_route(&a, "10.0.0.0", 24);
    variant_map_initialize(&b);
    variant_map_addUInt8(&b, "PrefixLength", 24); /* narrower, and first */
    variant_map_addChar(&b, "Destination", "10.0.0.0");
    EXPECT_TRUE(variant_map_compare(&a, &b, &result));
    EXPECT_EQ(result, 0);
    const auto differ = [&](const char *why) {
        result = 0;
        EXPECT_TRUE(variant_map_compare(&a, &b, &result) && result != 0) << why;
        result = 0;
        EXPECT_TRUE(variant_map_compare(&b, &a, &result) && result != 0) << why << ", the other way round";
    };
    variant_map_addUInt8(&b, "PrefixLength", 25);
    differ("a number");
    variant_map_addChar(&b, "PrefixLength", "24");
    differ("a text is no number");
    variant_map_addUInt8(&b, "PrefixLength", 24);
    variant_map_addMapCopy(&a, "Inner", &b);
    differ("one entry more");
    variant_map_addMapCopy(&b, "Inner", &a);
    differ("an inner map");
    variant_t negative{};
    variant_t huge{};
    variant_setInt32(&negative, -1);
    variant_setUInt64(&huge, UINT64_MAX);
    variant_map_cleanup(&a);
    variant_map_cleanup(&b);
    variant_map_add(&a, "n", &negative);
    variant_map_add(&b, "n", &huge);
    differ("the same bits");
    EXPECT_FALSE(variant_map_compare(&a, nullptr, &result));
    variant_map_cleanup(&a);
    variant_map_cleanup(&b);
}

TEST(Llist, KeepsItsOrderWhileMembersComeAndGo) {
    struct Record {
        llist_iterator_t link;
        int number;
    };
    Record records[4]{};
    llist_t list{};
    llist_t other{};
    llist_initialize(&list);
    llist_initialize(&other);
    for (int i = 0; i < 4; ++i) {
        records[i].number = i;
        llist_iterator_initialize(&records[i].link, &records[i]);
        llist_append(&list, &records[i].link);
    }
    const auto order = [](const llist_t &walked) {
        std::string numbers;
        for (const llist_iterator_t *it = llist_first(&walked); it; it = llist_iterator_next(it))
            numbers += std::to_string(static_cast<Record *>(it->data)->number);
        return numbers + "/" + std::to_string(llist_size(&walked));
    };
    llist_iterator_take(&records[1].link);
    llist_iterator_take(&records[1].link); /* again: in none */
    EXPECT_EQ(order(list), "023/3");
    llist_append(&list, &records[0].link); /* moves to the tail */
    llist_append(&other, &records[3].link);
    EXPECT_EQ(order(list), "20/2");
    EXPECT_EQ(order(other), "3/1");
    EXPECT_EQ(llist_takeFirst(&list), &records[2].link);
    EXPECT_EQ(llist_takeFirst(&list), &records[0].link);
    EXPECT_EQ(llist_takeFirst(&list), nullptr);
    llist_append(&list, &records[1].link);
    EXPECT_EQ(order(list), "1/1") << "usable after it was emptied";
    EXPECT_EQ(llist_size(nullptr), 0U);
    EXPECT_FALSE(llist_append(nullptr, &records[2].link));
}

TEST(String, GrowsAsNeeded) {
    string_t string{};
    ASSERT_TRUE(string_initialize(&string, 2));
    std::string expected;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(string_appendChar(&string, "abc"));
        expected += "abc";
    }
    EXPECT_TRUE(string_appendChar(&string, nullptr));
    EXPECT_EQ(string_buffer(&string), expected);
    string_cleanup(&string);
    EXPECT_EQ(string_buffer(&string), nullptr);
    EXPECT_TRUE(string_appendChar(&string, "again"));
    EXPECT_STREQ(string_buffer(&string), "again");
    string_cleanup(&string);
    string_cleanup(nullptr);
}

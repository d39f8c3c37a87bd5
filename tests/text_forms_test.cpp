/* Texts of bytes and addresses: what is none must not pass for one. */
#include <gtest/gtest.h>

#include "host/base/text_forms.h"

namespace keel {

TEST(TextForms, Hexadecimal) {
    EXPECT_EQ(format_hex({0x00, 0x0a, 0xf1, 0xff}), "000af1ff");
    EXPECT_EQ(parse_hex("000aF1fF"), (Bytes{0x00, 0x0a, 0xf1, 0xff}));
    EXPECT_EQ(parse_hex(""), Bytes());
    for (const char *text : {"0", "0a1", "0g", "g0", "0x0a", " a", "-1", "0a:b"})
        EXPECT_FALSE(parse_hex(text)) << text;
}

TEST(TextForms, Ipv4) {
    EXPECT_EQ(format_ipv4(0xc0a80114), "192.168.1.20");
    EXPECT_EQ(parse_ipv4("192.168.1.20"), 0xc0a80114);
    EXPECT_EQ(parse_ipv4("0.0.0.0"), 0U) << "an address, if none to give away";
    EXPECT_EQ(parse_ipv4("255.255.255.255"), 0xffffffff);
    for (const char *text : {"", "192.168.1", "192.168.1.256", "192.168.1.20 ", "192.168.1.20.1", "c0a80114", "::1"}) {
        EXPECT_FALSE(parse_ipv4(text)) << text;
        EXPECT_EQ(ipv4_or_none(text), 0U) << text;
    }
    EXPECT_FALSE(parse_ipv4(std::string("192.168.1.20\0", 13))) << "as long as it is, not as far as C reads it";
    EXPECT_EQ(network_bytes(0x01020304), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(network_number(Bytes{0xff, 2, 3, 4}.data()), 0xff020304);
}

TEST(TextForms, Masks) {
    for (int length = 0; length <= 32; ++length)
        EXPECT_EQ(prefix_length_of(mask_of(length)), length);
    EXPECT_EQ(format_ipv4(mask_of(23)), "255.255.254.0");
    EXPECT_EQ(mask_of(-1), 0U);
    EXPECT_EQ(mask_of(33), 0xffffffff);
}

TEST(TextForms, Networks) {
    const auto network = parse_network("192.168.1.1/23");
    ASSERT_TRUE(network);
    EXPECT_EQ(format_network(*network), "192.168.1.1/23");
    EXPECT_EQ(format_ipv4(network->first_host()) + " " + format_ipv4(network->last_host()),
              "192.168.0.1 192.168.1.254");
    EXPECT_FALSE(network->has_host(parse_ipv4("192.168.0.0").value()));
    EXPECT_FALSE(network->has_host(parse_ipv4("192.168.1.255").value()));
    for (const char *text : {"", "/", "192.168.1.1", "192.168.1.1/", "/24", "192.168.1.1/33", "192.168.1.1/-1",
                             "192.168.1.1/2 ", "192.168.1.1/024", "192.168.1.1/24/1"})
        EXPECT_FALSE(parse_network(text)) << text;
}

TEST(TextForms, Mac) {
    const HardwareAddress address = {0x02, 0x1a, 0x2b, 0x3c, 0x4d, 0xef};
    EXPECT_EQ(format_mac(address.data()), "02:1A:2B:3C:4D:EF");
    EXPECT_EQ(parse_mac("02:1a:2b:3C:4D:eF"), address);
    for (const char *text : {"", "02:1a:2b:3c:4d", "02:1a:2b:3c:4d:e", "02-1a-2b-3c-4d-ef", "02:1a:2b:3c:4d:eg",
                             "02:1a:2b:3c:4d:ef:", "2:1a:2b:3c:4d:ef:0", "021a:2b:3c:4d:ef:"})
        EXPECT_FALSE(parse_mac(text)) << text;
    const HardwareAddress other = {0x02, 0, 0, 0, 0, 0x01};
    EXPECT_EQ(find_macs("Hosts.Host.02:1A:2B:3C:4D:EF.Active of 02:00:00:00:00:01: 02:1a:2b:3c:4d:ef"),
              (std::vector<HardwareAddress>{address, other}));
    for (const char *text : {"", "02:1a:2b:3c:4d", "x02:1a:2b:3c:4d:ef", "00:02:1a:2b:3c:4d:ef", "02:1a:2b:3c:4d:ef:00",
                             "02:1a:2b:3c:4d:eff", "10:31:07: at 10:31:07.123"})
        EXPECT_EQ(find_macs(text).size(), 0U) << text;
}

} // namespace keel

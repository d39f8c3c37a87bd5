/* What the kernel's messages say, whatever the order of bytes on this processor; made here, so that no kernel is
 * needed. */
#include "host/linux/netlink.h"

#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>

#include <memory>

namespace keel {

namespace {

const std::uint8_t network[] = {10, 60, 0, 0};
const std::uint8_t address[] = {10, 20, 0, 1};
const std::uint8_t mac[] = {0x02, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};

/* A message of the kernel with the fixed part that its type has, and the attributes that put() adds. */
template <typename Record, typename Fixed, typename Put> Record read(int type, Fixed fixed, const Put &put) {
    const std::unique_ptr<nl_msg, decltype(&nlmsg_free)> message(nlmsg_alloc_simple(type, 0), nlmsg_free);
    nlmsg_append(message.get(), &fixed, sizeof fixed, NLMSG_ALIGNTO);
    put(message.get());
    const auto said = read_kernel_message(nlmsg_hdr(message.get()));
    EXPECT_TRUE(said && std::holds_alternative<Record>(said->record));
    return said && std::holds_alternative<Record>(said->record) ? std::get<Record>(said->record) : Record{};
}

} // namespace

TEST(Netlink, NumbersAndAddressesAreReadInTheirOwnOrders) {
    ifaddrmsg of_address{};
    of_address.ifa_family = AF_INET;
    of_address.ifa_prefixlen = 24;
    of_address.ifa_index = 0x10203;
    EXPECT_EQ(read<KernelAddress>(RTM_NEWADDR, of_address,
                                  [](nl_msg *message) {
                                      nla_put(message, IFA_LOCAL, sizeof address, address);
                                      nla_put_string(message, IFA_LABEL, "eth1.20:zep");
                                  }),
              (KernelAddress{0x10203, "10.20.0.1", 24, true}));

    rtmsg of_route{};
    of_route.rtm_family = AF_INET;
    of_route.rtm_dst_len = 16;
    EXPECT_EQ(read<KernelRoute>(RTM_NEWROUTE, of_route,
                                [](nl_msg *message) {
                                    nla_put_u32(message, RTA_TABLE, RT_TABLE_MAIN);
                                    nla_put_u32(message, RTA_OIF, 0x10203);
                                    nla_put(message, RTA_DST, sizeof network, network);
                                    nla_put(message, RTA_GATEWAY, sizeof address, address);
                                }),
              (KernelRoute{0x10203, "10.60.0.0", 16, "10.20.0.1"}));

    ndmsg of_neighbour{};
    of_neighbour.ndm_family = AF_INET;
    of_neighbour.ndm_ifindex = 7;
    of_neighbour.ndm_state = NUD_REACHABLE;
    const auto both = [](nl_msg *message) {
        nla_put(message, NDA_DST, sizeof address, address);
        nla_put(message, NDA_LLADDR, sizeof mac, mac);
    };
    EXPECT_EQ(read<KernelNeighbour>(RTM_NEWNEIGH, of_neighbour, both),
              (KernelNeighbour{7, "10.20.0.1", "02:1A:2B:3C:4D:5E", true, false}));

    ndmsg of_port{};
    of_port.ndm_family = AF_BRIDGE;
    of_port.ndm_ifindex = 7;
    of_port.ndm_state = NUD_REACHABLE;
    EXPECT_EQ(read<KernelForwarding>(RTM_NEWNEIGH, of_port,
                                     [](nl_msg *message) {
                                         nla_put(message, NDA_LLADDR, sizeof mac, mac);
                                         nla_put_u32(message, NDA_MASTER, 0x10203);
                                         nla_put_u16(message, NDA_VLAN, 20);
                                     }),
              (KernelForwarding{0x10203, 7, "02:1A:2B:3C:4D:5E", 20}));
}

} // namespace keel

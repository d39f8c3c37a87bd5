/* The plug-in's exported operations, one by one. */
#include "routed/common.h"
#include "routed/dhcp_client.h"
#include "routed/dhcp_server.h"
#include "routed/ip_route.h"
#include "routed/lease_store.h"
#include "routed/utils.h"
#include "tests/sim_gateway.h"

namespace keel {

class Plugin : public SimGateway {
protected:
    void SetUp() override {
        build();
        model->set("Keel.Zephyrin", {{"Enable", false}}); /* the operations alone, no service */
        load_plugin();
    }
};

#define PLUGIN(name) operation<decltype(::name)>(#name)

TEST_F(Plugin, TheClientIdentifierCarriesItsOffsetThroughTheWholeAddress) {
    const auto format = PLUGIN(zep_utils_format_option61);
    const std::tuple<const char *, int, const char *> cases[] = {
        {"02:1A:2B:3C:4D:5E", 0, "01021a2b3c4d5e"},  {"02:1a:2b:3c:4d:fe", 3, "01021a2b3c4e01"},
        {"02:1a:2b:3c:ff:ff", 1, "01021a2b3d0000"},  {"ff:ff:ff:ff:ff:ff", 2, "01000000000001"},
        {"00:00:00:00:00:00", -1, "01ffffffffffff"}, {"", 0, "01000000000000"},
        {"02:1a:2b:3c:4d:5", 2, "01000000000002"},   {"zz:1a:2b:3c:4d:5e", 0, "01001a2b3c4d5e"}};
    for (const auto &[mac, offset, identifier] : cases)
        EXPECT_STREQ(format(mac, offset), identifier) << mac;
    firewall.failing = "fails";
    EXPECT_EQ(PLUGIN(zep_utils_system)("it fails"), 0);
    EXPECT_EQ(traced("Command[it fails] failed"), 1U);
}

TEST_F(Plugin, MasksAddressesAndTheRoutesOfOthers) {
    const auto prefix = PLUGIN(zep_ipv4_mask_to_prefixlen);
    const std::pair<const char *, int> masks[] = {{"255.255.255.0", 24},
                                                  {"255.255.255.255", 32},
                                                  {"255.0.255.0", 8},
                                                  {"0.0.0.0", 0},
                                                  {"127.0.0.0", 0},
                                                  {"nonsense", 0},
                                                  {"", 0},
                                                  {nullptr, 0},
                                                  {"128.0.0.0", 1}};
    for (const auto &[mask, length] : masks)
        EXPECT_EQ(prefix(mask), length) << (mask ? mask : "null");

    const auto add = PLUGIN(zep_ipv4_addr_add);
    const auto del = PLUGIN(zep_ipv4_addr_del);
    add("eth1.20", "10.1.2.3", "255.255.0.0");
    add("eth1.20", "10.1.2.3", "255.255.0.0");
    add("eth1.20", "10.1.2.3", "255.255.255.0");
    add("eth1.20", "10.1.2.4", "0.0.0.0");
    add("", "10.1.2.4", "255.0.0.0");
    loop->run_until_idle();
    EXPECT_EQ(addresses(), (std::vector<std::string>{"10.1.2.3/16", "10.1.2.3/24"}));
    EXPECT_EQ(traced("Invalid subnetmask value 0.0.0.0"), 1U);
    del("eth1.20", "10.1.2.3", "255.255.255.0"); /* the first instance alone is looked at */
    loop->run_until_idle();
    EXPECT_EQ(addresses().size(), 2U);
    del("eth1.20", "10.1.2.3", "255.255.0.0");
    loop->run_until_idle();
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.1.2.3/24"});
    PLUGIN(zep_ipv4_addr_flush)("eth1.20");
    EXPECT_TRUE(addresses().empty());

    for (const char *name : {"zep_0", "static_1", "zep_1", "zep"})
        model->add("Weft.Intf.eth1.20.IPv4Route", name, {});
    PLUGIN(zep_ipv4_route_flush)("eth1.20");
    loop->run_until_idle();
    EXPECT_EQ(model->instances("Weft.Intf.eth1.20.IPv4Route"), (std::vector<std::string>{"static_1", "zep"}));
}

TEST_F(Plugin, RecordsCutTheirTextsAndNoteChanges) {
    Client_lease *client = PLUGIN(zep_client_lease_create)(std::string(40, 'x').c_str(), nullptr, "255.255.255.0", -1);
    EXPECT_EQ(std::string(client->name), std::string(35, 'x'));
    EXPECT_STREQ(client->ip_address, "0.0.0.0");
    EXPECT_EQ(PLUGIN(zep_client_lease_create)(nullptr, nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(traced("Null clientid"), 1U);

    const auto create = PLUGIN(zep_server_lease_create);
    Server_lease *device = create("id", DeviceType::ITF, "192.168.1.2", "a4:3e:51:0b:cc:7f-more",
                                  std::string(120, 'p').c_str(), 0x101, nullptr, client);
    EXPECT_STREQ(device->mac_address, "A4:3E:51:0B:CC:7F");
    EXPECT_EQ(std::string(device->lease_path).size(), 99U);
    EXPECT_EQ(device->active, 1);
    EXPECT_EQ(create("id", DeviceType::STB, "192.168.1.2", nullptr, "", 1, nullptr, client), nullptr);
    EXPECT_EQ(PLUGIN(zep_server_lease_append_to_list)(&client->server_leases, device), 1);
    EXPECT_EQ(PLUGIN(zep_server_lease_append_to_list)(&client->server_leases, nullptr), 0);
    EXPECT_EQ(PLUGIN(zep_server_lease_find)(&client->server_leases, "id"), device);
    EXPECT_EQ(PLUGIN(zep_client_lease_has_stb)(client), 0);
    EXPECT_EQ(PLUGIN(zep_client_lease_has_active_slease)(client), 1);

    const auto update = PLUGIN(zep_server_lease_update);
    EXPECT_EQ(update(device, DeviceType::ITF, "192.168.1.2", "new.path", 1, nullptr, client), 0);
    EXPECT_STREQ(device->lease_path, "new.path");
    EXPECT_EQ(update(device, DeviceType::STB, "192.168.1.2", "new.path", 1, nullptr, client), 1);
    EXPECT_EQ(update(device, DeviceType::STB, "192.168.1.2", "new.path", 0, nullptr, client), 1);
    EXPECT_EQ(update(device, DeviceType::STB, nullptr, "other", 1, nullptr, client), 0);
    device->nat_mapped = 1;
    client->status = LeaseStatus::Connected;
    PLUGIN(zep_client_lease_reinit)(client);
    EXPECT_EQ(device->nat_mapped, 0);
    EXPECT_STREQ(client->subnet_mask, "0.0.0.0");
    EXPECT_EQ(client->status, LeaseStatus::Unconnected);
    PLUGIN(zep_client_lease_cleanup)(client);
    EXPECT_EQ(client->server_leases.size, 0U);
    std::free(client);

    const auto status = PLUGIN(zep_client_lease_get_dhcpp_status);
    for (const auto &[text, state] : {std::pair<const char *, int>{"Idle", 0},
                                      {"Bound", 3},
                                      {"Rebinding", 5},
                                      {"bound", 6},
                                      {"Unleased", 6},
                                      {"", 6},
                                      {nullptr, 6}})
        EXPECT_EQ(static_cast<int>(status(text)), state);
    const auto type = PLUGIN(zep_server_lease_device_type);
    EXPECT_EQ(type("DHCPv4.Server.Pool.zep_stb"), DeviceType::STB);
    EXPECT_EQ(type("DHCPv4.Server.Pool.zep_itf"), DeviceType::ITF);
    EXPECT_EQ(type("stb"), DeviceType::UNKNOWN);
    EXPECT_EQ(type(nullptr), DeviceType::UNKNOWN);
}

TEST_F(Plugin, StoredRecordsComeBackWholeOrNotAtAll) {
    Client_lease *client = PLUGIN(zep_client_lease_create)("0102", "10.0.0.9", "255.0.0.0", -1);
    client->status = LeaseStatus::Internal;
    const auto create = PLUGIN(zep_server_lease_create);
    const auto append = PLUGIN(zep_server_lease_append_to_list);
    append(&client->server_leases, create("a", DeviceType::ITF, "192.168.1.2", "02:aa", "", 1, nullptr, client));
    append(&client->server_leases, create("b", DeviceType::STB, "192.168.1.3", "02:bb", "", 0, nullptr, client));
    const auto save = PLUGIN(zep_client_lease_obj_save);
    save(client);
    save(client); /* both find nothing stored; one adds, one is refused */
    loop->run_until_idle();
    EXPECT_EQ(traced("Add/Set ClientLease.0102"), 0U) << "the refused one adds no devices";
    EXPECT_EQ(identity("0102", "DHCPCStatus"), "Internal");
    EXPECT_EQ(model->instances("Keel.Zephyrin.ClientLease.0102.ServerLease"), (std::vector<std::string>{"a", "b"}));
    client->status = LeaseStatus::Connected;
    save(client);
    loop->run_until_idle();
    EXPECT_EQ(identity("0102", "DHCPCStatus"), "Connected");
    PLUGIN(zep_client_lease_cleanup)(client);
    std::free(client);

    model->set("Keel.Zephyrin.ClientLease.0102.ServerLease.b", {{"DeviceType", std::string("stb")}});
    model->add("Keel.Zephyrin.ClientLease", "nameless", {{"IPAddress", std::string("10.0.0.1")}});
    model->add("Keel.Zephyrin.ClientLease", "half", {{"Name", std::string("half")}});
    model->add("Keel.Zephyrin.ClientLease.half.ServerLease", "c", {{"Id", std::string("c")}});
    llist_t list{};
    EXPECT_EQ(PLUGIN(zep_client_lease_obj_parse)(&list), 1);
    EXPECT_EQ(PLUGIN(zep_client_lease_obj_parse)(nullptr), 0);
    loop->run_until_idle();
    ASSERT_EQ(list.size, 1U);
    EXPECT_EQ(model->instances("Keel.Zephyrin.ClientLease"), std::vector<std::string>{"0102"});
    auto *loaded = static_cast<Client_lease *>(llist_takeFirst(&list)->data);
    EXPECT_EQ(loaded->client_id_offset, -1);
    EXPECT_EQ(loaded->status, LeaseStatus::Unconnected);
    EXPECT_STREQ(loaded->ip_address, "10.0.0.9");
    const auto *first = static_cast<Server_lease *>(llist_first(&loaded->server_leases)->data);
    EXPECT_STREQ(first->mac_address, "02:AA");
    EXPECT_EQ(first->active, 0) << "a restored device is absent until it is seen";
    EXPECT_STREQ(first->lease_path, "");
    EXPECT_EQ(PLUGIN(zep_server_lease_find)(&loaded->server_leases, "b")->device_type, DeviceType::UNKNOWN);
    PLUGIN(zep_client_lease_cleanup)(loaded);
    std::free(loaded);

    EXPECT_EQ(PLUGIN(zep_client_lease_obj_delete)(""), 0);
    EXPECT_EQ(PLUGIN(zep_client_lease_obj_flush_all_instances)(), 1);
    loop->run_until_idle();
    EXPECT_TRUE(model->instances("Keel.Zephyrin.ClientLease").empty());
}

TEST_F(Plugin, SettingsAndPoolsAreWrittenInFullAndStopWhereRefused) {
    variant_t list{};
    variant_initialize(&list, variant_type_list);
    for (const char *destination : {"10.0.0.0", "11.0.0.0"}) {
        variant_map_t route{};
        variant_map_addChar(&route, "Destination", destination);
        if (destination[1] == '0') /* the other lacks the key */
            variant_map_addUInt8(&route, "PrefixLength", 8);
        variant_map_addChar(&route, "Router", "10.20.0.1");
        variant_list_addMapCopy(variant_da_list(&list), &route);
        variant_map_cleanup(&route);
    }
    const auto replace = PLUGIN(zep_common_set_zephyrin_static_routes);
    replace(&list);
    replace(&list);
    loop->run_until_idle();
    const std::string path = "Keel.Zephyrin.ClasslessStaticRoute.";
    const auto stored = model->instances("Keel.Zephyrin.ClasslessStaticRoute");
    ASSERT_EQ(stored.size(), 2U) << "the old ones go before the new ones come";
    EXPECT_EQ(model->text(path + stored[0], "Destination"), "10.0.0.0");
    EXPECT_FALSE(model->get(path + stored[1], "PrefixLength"));
    variant_t back{};
    variant_initialize(&back, variant_type_list);
    EXPECT_EQ(PLUGIN(zep_common_get_zephyrin_static_routes)(&back), 1);
    EXPECT_EQ(variant_list_size(variant_da_list(&back)), 2U);
    variant_cleanup(&back);
    variant_cleanup(&list);

    char ntp[9] = {};
    model->set("Keel.Zephyrin", {{"NTPServer", std::string("0123456789")}});
    PLUGIN(zep_common_get_zephyrin_ntpwwwserver)(ntp, nullptr);
    EXPECT_STREQ(ntp, "01234567");
    EXPECT_EQ(PLUGIN(zep_common_set_zephyrin_ntpwwwserver)(nullptr, nullptr), 0);
    EXPECT_EQ(PLUGIN(zep_common_set_zephyrin_ntpwwwserver)(nullptr, "0a000001"), 1);
    PLUGIN(zep_common_set_zephyrin_status)(2);
    loop->run_until_idle();
    EXPECT_EQ(model->text("Keel.Zephyrin", "WWWServer"), "0a000001");
    EXPECT_EQ(model->text("Keel.Zephyrin", "Status"), "Error");

    EXPECT_EQ(PLUGIN(zep_dhcp_server_pool_path_get)(2), nullptr);
    EXPECT_EQ(PLUGIN(zep_dhcp_server_pool_set)(300, 1), 1);
    EXPECT_EQ(model->integer("DHCPv4.Server.Pool.zep_stb", "MaxLeaseTime"), 300);
    model->remove("DHCPv4.Server.Pool.zep_itf");
    EXPECT_EQ(PLUGIN(zep_dhcp_server_pool_set)(600, 0), 0);
    EXPECT_EQ(model->integer("DHCPv4.Server.Pool.zep_stb", "LeaseTime"), 300) << "the first refusal ends it";
    EXPECT_EQ(PLUGIN(zep_dhcp_server_options_ntp_www_set_enable)(1), 0);
    PLUGIN(zep_dhcp_server_options_ntp_www_set_value)("0a0000ff", nullptr);
    EXPECT_EQ(model->text("DHCPv4.Server.Pool.zep_stb.Option.ntp", "Value"), "0a0000ff");
    EXPECT_EQ(PLUGIN(zep_dhcp_server_lease_offer)(nullptr), 0);
    EXPECT_EQ(traced("Null Client ID"), 1U);
}

TEST_F(Plugin, AClientInterfaceIsMadeAlsoWhereHalfOfItsSurroundingsIsMissing) {
    kernel->set_link("eth1.20", false);
    model->set("Weft.Intf.dhcp_iptv", {{"LowerLayers", std::string()}});
    model->remove("Weft.Intf.dhcp_iptv.MIB.dhcp");
    EXPECT_EQ(PLUGIN(zep_dhcp_client_create)("dhcp_zep_x", nullptr), 1);
    EXPECT_EQ(traced("No network device below iptv"), 1U);
    EXPECT_EQ(traced("No dhcp settings of dhcp_iptv"), 1U);
    EXPECT_EQ(wan_client("x", "Flags"), "dhcp logical zep-dhcp");
    EXPECT_EQ(wan_client("x", "Enable"), "false");
    EXPECT_TRUE(has_word(model->text("Weft.Intf.iptv", "LowerLayers"), "dhcp_zep_x"));
    EXPECT_EQ(PLUGIN(zep_dhcp_client_create)(nullptr, "01"), 0);
    EXPECT_EQ(PLUGIN(zep_dhcp_client_get_ipaddress)(nullptr), nullptr);
    EXPECT_EQ(PLUGIN(zep_dhcp_client_get_reqoption)("", 42), nullptr);
    EXPECT_NE(PLUGIN(zep_dhcp_client_start_stop)("dhcp_zep_x", 1), 0);
    EXPECT_EQ(PLUGIN(zep_dhcp_client_start_stop)("dhcp_zep_y", 1), 0);
    EXPECT_EQ(PLUGIN(zep_dhcp_client_delete)("dhcp_zep_x"), 1);
    loop->run_until_idle();
    EXPECT_EQ(wan_client("x", "Enable"), "(none)");
    EXPECT_FALSE(has_word(model->text("Weft.Intf.iptv", "LowerLayers"), "dhcp_zep_x"));
}

TEST_F(Plugin, EveryTraceCarriesItsZoneLevelAndPlace) {
    PLUGIN(zep_dhcp_server_lease_offer)(nullptr);
    const TraceLine &line = TraceLog::instance().recent().back();
    EXPECT_EQ(line.level, Level::Error);
    EXPECT_EQ(line.zone, "dhcp");
    EXPECT_TRUE(line.text.starts_with("dhcp    - [x]Null Client ID - (zep_dhcp_server_lease_offer@dhcp_server.cpp:"))
        << line.text;
}

} // namespace keel

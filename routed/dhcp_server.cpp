#include "routed/dhcp_server.h"

#include "frame/trace.h"

namespace {

const char zone[] = "dhcp";

const char *const pools[dhcp_pools] = {"DHCPv4.Server.Pool.zep_itf", "DHCPv4.Server.Pool.zep_stb"};

bool write_option(unsigned pool, const char *option, const variant_map_t *map) {
    char path[path_size];
    format_text(path, "%s.Option.%s", pools[pool], option);
    return hull_client_set_object(rig_getSysbus(), path, map);
}

/* In both pools, whether accepted or not. */
void write_option_value(const char *option, const char *value) {
    LocalMap map;
    variant_map_addChar(map.get(), "Value", value);
    for (unsigned pool = 0; pool < dhcp_pools; ++pool)
        write_option(pool, option, map.get());
}

} // namespace

const char *zep_dhcp_server_pool_path_get(unsigned index) {
    return index < dhcp_pools ? pools[index] : nullptr;
}

int zep_dhcp_server_pool_set(uint32_t leaseTime, uint8_t onHold) {
    LocalMap map;
    variant_map_addUInt32(map.get(), "MinLeaseTime", leaseTime);
    variant_map_addUInt32(map.get(), "LeaseTime", leaseTime);
    variant_map_addUInt32(map.get(), "MaxLeaseTime", leaseTime);
    variant_map_addBool(map.get(), "LeasesOnHold", onHold != 0);
    for (const char *pool : pools)
        if (!hull_client_set_object(rig_getSysbus(), pool, map.get()))
            return 0;
    return 1;
}

int zep_dhcp_server_options_ntp_www_set_enable(uint8_t enable) {
    LocalMap map;
    variant_map_addBool(map.get(), "Enable", enable != 0);
    for (unsigned pool = 0; pool < dhcp_pools; ++pool)
        if (!write_option(pool, "ntp", map.get()) || !write_option(pool, "www", map.get()))
            return 0;
    return 1;
}

void zep_dhcp_server_options_ntp_www_set_value(const char *ntp, const char *www) {
    if (ntp)
        write_option_value("ntp", ntp);
    if (www)
        write_option_value("www", www);
}

int zep_dhcp_server_lease_offer(const char *leasePath) {
    if (!leasePath) {
        ZEP_ERROR(zone, "Null Client ID");
        return 0;
    }
    LocalMap map;
    variant_map_addBool(map.get(), "OnHold", false);
    return hull_client_set_object(rig_getSysbus(), leasePath, map.get());
}

#include "routed/firewall.h"

#include "frame/trace.h"
#include "routed/utils.h"

#define IPTABLES "/usr/sbin/iptables"

namespace {

const char zone[] = "fw";

__attribute__((format(printf, 1, 2))) int run(const char *format, ...) {
    char command[path_size];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(command, sizeof command, format, arguments);
    va_end(arguments);
    return zep_utils_system(command);
}

bool valid_interface(const char *intf) {
    if (is_interface_name(intf))
        return true;
    ZEP_ERROR(zone, "Invalid intf %s", intf ? intf : "(NULL)");
    return false;
}

/* Four decimal numbers up to 255, and nothing else. */
bool dotted_ipv4(const char *text) {
    for (int part = 0; part < 4; ++part) {
        unsigned value = 0;
        int digits = 0;
        for (; *text >= '0' && *text <= '9' && digits < 4; ++text, ++digits)
            value = value * 10 + static_cast<unsigned>(*text - '0');
        if (digits == 0 || digits > 3 || value > 255 || *text != (part < 3 ? '.' : '\0'))
            return false;
        ++text;
    }
    return true;
}

bool valid_address(const char *address) {
    return !is_empty(address) && strcmp(address, "0.0.0.0") != 0 && dotted_ipv4(address);
}

bool valid_operation(char op) {
    if (op == 'A' || op == 'D')
        return true;
    ZEP_ERROR(zone, "Invalid operation %c", op);
    return false;
}

} // namespace

int zep_firewall_static_chain_default(void) {
    int done = run(IPTABLES " -t raw -A PREROUTING_zep_ACCEPT -d 224.0.0.0/4 -j ACCEPT");
    done &= run(IPTABLES " -t raw -A PREROUTING_zep_ACCEPT -d 255.255.255.255 -j ACCEPT");
    return done;
}

int zep_firewall_static_chain_flush(void) {
    int done = run(IPTABLES " -t raw -F PREROUTING_zep_ACCEPT");
    done &= run(IPTABLES " -t nat -F POSTROUTING_zep");
    done &= run(IPTABLES " -t filter -F FORWARD_zep");
    done &= run(IPTABLES " -t nat -F PREROUTING_zep");
    return done;
}

int zep_firewall_static_chain_append(const char *intf) {
    return zep_firewall_static_chain_append_delete(intf, 'A');
}

int zep_firewall_static_chain_delete(const char *intf) {
    return zep_firewall_static_chain_append_delete(intf, 'D');
}

int zep_firewall_static_chain_append_delete(const char *intf, char op) {
    if (!valid_interface(intf) || !valid_operation(op))
        return 0;
    int done = run(IPTABLES " -t nat -%c POSTROUTING_IPTV -j POSTROUTING_zep -o %s", op, intf);
    done &= run(IPTABLES " -t nat -%c PREROUTING_IPTV -j PREROUTING_zep -i %s", op, intf);
    done &= run(IPTABLES " -t raw -%c PREROUTING -i %s -j PREROUTING_zep_ACCEPT", op, intf);
    done &= run(IPTABLES " -t raw -%c PREROUTING -i %s -j PREROUTING_zep_DROP", op, intf);
    return done;
}

int zep_firewall_static_port_mapping_append(const char *lanip, const char *wanip) {
    return zep_firewall_static_port_mapping_append_delete(lanip, wanip, 'A');
}

int zep_firewall_static_port_mapping_delete(const char *lanip, const char *wanip) {
    return zep_firewall_static_port_mapping_append_delete(lanip, wanip, 'D');
}

int zep_firewall_static_port_mapping_append_delete(const char *lanip, const char *wanip, char op) {
    if (!valid_address(lanip)) {
        ZEP_ERROR(zone, "Invalid lanip %s", lanip ? lanip : "(NULL)");
        return 0;
    }
    if (!valid_address(wanip)) {
        ZEP_ERROR(zone, "Invalid wanip %s", wanip ? wanip : "(NULL)");
        return 0;
    }
    if (!valid_operation(op))
        return 0;
    int done = run(IPTABLES " -t raw -%c PREROUTING_zep_ACCEPT -d %s/255.255.255.255 -j ACCEPT", op, wanip);
    done &= run(IPTABLES " -t nat -%c POSTROUTING_zep -s %s -j SNAT --to-source %s", op, lanip, wanip);
    done &= run(IPTABLES " -t filter -%c FORWARD_zep -s %s -j ACCEPT", op, lanip);
    done &= run(IPTABLES " -t nat -%c PREROUTING_zep -j DNAT --to-destination %s -d %s", op, lanip, wanip);
    return done;
}

/*
 * What udhcpc prints, line by line, as typed reports; and its command line.
 */
#ifndef HOST_LINUX_UDHCPC_H
#define HOST_LINUX_UDHCPC_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace keel {

struct WanLease {
    std::string address;                /* dotted */
    std::string mask;                   /* dotted */
    std::map<int, std::string> options; /* hexadecimal texts */
};

struct UdhcpcReport {
    enum class Kind { None, Selecting, Requesting, Renewing, Rebinding, Bound, Nak, Lost };
    Kind kind = Kind::None;
    WanLease lease; /* with Bound */
};

/* Gathers the lines of one client. What a DHCP server sent is checked here: addresses are dotted IPv4, options are
 * hexadecimal; what is not is left out, and a lease without a valid address and mask is no lease. */
class UdhcpcReader {
public:
    UdhcpcReport take(const std::string &line);

private:
    UdhcpcReport take_event(const std::vector<std::string> &fields);

    std::map<int, std::string> options_;
};

struct UdhcpcSettings {
    std::string program;
    std::string script;
    std::string interface;
    std::string client_id; /* hexadecimal, "" for none */
    std::string vendor_class;
    std::vector<std::string> requested_options;
    std::string last_address; /* asked for again, "" for none */
};

/* The command line of a client that runs in the foreground, tries for ever, and releases nothing. */
std::vector<std::string> udhcpc_command(const UdhcpcSettings &settings);

} // namespace keel

#endif

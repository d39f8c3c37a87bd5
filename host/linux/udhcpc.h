/*
 * What udhcpc's script prints, line by line, as typed reports; and udhcpc's command line.
 */
#ifndef HOST_LINUX_UDHCPC_H
#define HOST_LINUX_UDHCPC_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/gateway/wan_lease.h"

namespace keel {

struct UdhcpcReport {
    enum class Kind {
        None,     /* an option, or a line of the program's own log, which nobody reads */
        Bound,    /* or renewed */
        Nak,      /* the server refused */
        Deconfig, /* there is no lease: at its start, and when one is lost */
        Leasefail /* no server answered */
    };
    Kind kind = Kind::None;
    WanLease lease;       /* with Bound */
    std::string server;   /* with Nak: its identifier, dotted, "" when it did not tell */
    bool dropped = false; /* the line was none of the script's, or had something in it that was left out */
};

/* Gathers the lines of one client. What a DHCP server sent is checked here: addresses are dotted IPv4, options are
 * hexadecimal; what is not is left out. Whether it is of any use to have such a lease is another question
 * (host/gateway/wan_lease.h). */
class UdhcpcReader {
public:
    UdhcpcReport take(const std::string &line);

private:
    bool take_option(const std::vector<std::string> &fields);
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

/* Until it tells that nobody answered. */
constexpr unsigned udhcpc_answer_s = 2;

/* The command line of a client that runs in the foreground and releases nothing. It tries once, tells after a while
 * that nobody answered, and listens on: whoever runs it decides when it tries again, by starting it anew. */
std::vector<std::string> udhcpc_command(const UdhcpcSettings &settings);

} // namespace keel

#endif

#include "host/base/journal.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "host/base/text_forms.h"

namespace keel {

namespace {

/* A value of several lines has its length before it, eight bytes, the lowest first; else it could forge other fields.
 */
void add_field(std::string &entry, const char *name, const std::string &value) {
    entry += name;
    if (value.find('\n') == std::string::npos) {
        entry += "=";
    } else {
        entry += "\n";
        for (unsigned shift = 0; shift < 64; shift += 8)
            entry += static_cast<char>(static_cast<std::uint64_t>(value.size()) >> shift & 0xff);
    }
    entry += value + "\n";
}

/* These tell of the gateway itself, whose own MAC address is no device's of the LAN. */
bool tells_of_devices(const std::string &zone) {
    return zone != "host" && zone != "settings";
}

} // namespace

Journal::Journal(std::string path)
    : path_(std::move(path)), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}

Journal::~Journal() {
    if (socket_ >= 0)
        close(socket_);
}

bool Journal::write(int priority, const std::string &zone, const std::string &text) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_ < 0 || path_.size() >= sizeof address.sun_path)
        return false;
    path_.copy(address.sun_path, path_.size());
    std::string entry;
    add_field(entry, "MESSAGE", zone.empty() ? text : zone + ": " + text);
    add_field(entry, "PRIORITY", std::to_string(priority));
    add_field(entry, "SYSLOG_IDENTIFIER", "keelhost");
    if (!zone.empty())
        add_field(entry, "ZONE", zone);
    if (tells_of_devices(zone))
        for (const HardwareAddress &device : find_macs(text))
            add_field(entry, "STB", format_mac(device.data()));
    return sendto(socket_, entry.data(), entry.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address),
                  sizeof address) == static_cast<ssize_t>(entry.size());
}

} // namespace keel

#include "host/dhcp/sender.h"

namespace keel {

namespace {

constexpr std::size_t max_id = 35;       /* characters of a client identifier's text */
constexpr std::size_t longest_text = 64; /* of what a device says of itself */

/* FNV-1a, 64 bits: the same in every run, which std::hash does not promise. */
std::uint64_t stable_hash(const Bytes &bytes) {
    std::uint64_t hash = 14695981039346656037U;
    for (const std::uint8_t byte : bytes)
        hash = (hash ^ byte) * 1099511628211U;
    return hash;
}

} // namespace

std::string sender_id(const DhcpMessage &message) {
    Bytes id = message.client_id;
    if (id.empty()) {
        id = {1};
        id.insert(id.end(), message.hardware.begin(), message.hardware.end());
    }
    std::string text = format_hex(id);
    if (text.size() <= max_id)
        return text;
    const std::uint64_t hash = stable_hash(id);
    return text.substr(0, max_id - 17) + "-" + format_hex(network_bytes(static_cast<std::uint32_t>(hash >> 32))) +
           format_hex(network_bytes(static_cast<std::uint32_t>(hash)));
}

Values description_of_sender(const DhcpMessage &message) {
    Values values;
    if (!message.host_name.empty())
        values["HostName"] = printable_text(message.host_name, longest_text);
    if (!message.vendor_class.empty())
        values["VendorClass"] = printable_text(message.vendor_class, longest_text);
    return values;
}

std::uint32_t wanted_address(const DhcpMessage &message) {
    return message.requested_address ? message.requested_address : message.client_address;
}

} // namespace keel

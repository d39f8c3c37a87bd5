#include "host/dhcp/packet.h"

#include <algorithm>
#include <array>
#include <optional>

namespace keel {

namespace {

constexpr std::uint8_t boot_request = 1;
constexpr std::uint8_t boot_reply = 2;
constexpr std::uint8_t ethernet = 1;
constexpr std::uint8_t hardware_size = 6;
constexpr std::array<std::uint8_t, 4> cookie = {0x63, 0x82, 0x53, 0x63};
constexpr std::uint8_t broadcast_bit = 0x80; /* in the first byte of the flags */
constexpr std::size_t minimum_size = 300;
constexpr std::size_t longest_option = 255;

/* Where the fields begin. */
enum : std::size_t {
    at_op = 0,
    at_hardware_type = 1,
    at_hardware_size = 2,
    at_xid = 4,
    at_flags = 10,
    at_client_address = 12,
    at_your_address = 16,
    at_relay = 24,
    at_hardware = 28,
    at_server_name = 44,
    at_file = 108,
    at_cookie = 236,
    at_options = 240
};

enum : std::uint8_t {
    option_pad = 0,
    option_host_name = 12,
    option_requested_address = 50,
    option_lease_time = 51,
    option_overload = 52,
    option_message_type = 53,
    option_server_id = 54,
    option_wanted_options = 55,
    option_vendor_class = 60,
    option_client_id = 61,
    option_relay_agent = 82,
    option_end = 255
};

using Options = std::map<std::uint8_t, Bytes>;

Bytes option_of(const Options &options, std::uint8_t number) {
    const auto found = options.find(number);
    return found == options.end() ? Bytes() : found->second;
}

std::string text_of(const Options &options, std::uint8_t number) {
    const Bytes value = option_of(options, number);
    return {value.begin(), value.end()};
}

/* An address, or a time; 0 for what is neither. */
std::uint32_t number_of(const Options &options, std::uint8_t number) {
    const Bytes value = option_of(options, number);
    return value.size() == 4 ? network_number(value.data()) : 0;
}

/* Adds the options of one field; an option that stands there more than once is one long option (RFC 3396). False when
 * one reaches over the field's end. */
bool read_options(const std::uint8_t *data, std::size_t size, Options *options) {
    return for_each_option(data, size, [options](std::uint8_t number, const std::uint8_t *value, std::size_t length) {
        Bytes &all = (*options)[number];
        all.insert(all.end(), value, value + length);
    });
}

/* The options of a whole message, with those in the fields that it lends them. */
std::optional<Options> all_options(const std::uint8_t *data, std::size_t size) {
    Options options;
    if (!read_options(data + at_options, size - at_options, &options))
        return std::nullopt;
    const auto overload = options.find(option_overload);
    if (overload == options.end())
        return options;
    const std::uint8_t fields = overload->second.size() == 1 ? overload->second[0] : 0;
    if (fields < 1 || fields > 3 || ((fields & 1) && !read_options(data + at_file, at_cookie - at_file, &options)) ||
        ((fields & 2) && !read_options(data + at_server_name, at_file - at_server_name, &options)))
        return std::nullopt;
    return options;
}

/* An option of more than 255 bytes goes in several pieces (RFC 3396). */
void append_option(Bytes *message, std::uint8_t number, const Bytes &value) {
    std::size_t at = 0;
    do {
        const std::size_t piece = std::min(value.size() - at, longest_option);
        message->push_back(number);
        message->push_back(static_cast<std::uint8_t>(piece));
        const auto first = value.begin() + static_cast<std::ptrdiff_t>(at);
        message->insert(message->end(), first, first + static_cast<std::ptrdiff_t>(piece));
        at += piece;
    } while (at < value.size());
}

bool is_formed_here(std::uint8_t number) {
    return number == option_pad || number == option_message_type || number == option_server_id ||
           number == option_client_id || number == option_relay_agent || number == option_end;
}

void put_number(Bytes *message, std::size_t at, std::uint32_t number) {
    const Bytes bytes = network_bytes(number);
    std::copy(bytes.begin(), bytes.end(), message->begin() + static_cast<std::ptrdiff_t>(at));
}

/* The options and the type of a whole message of that kind; nothing, with the reason in *error, for anything else. */
std::optional<Options> options_of_message(const std::uint8_t *data, std::size_t size, std::uint8_t op, DhcpType *type,
                                          std::string *error) {
    if (size < at_options) {
        *error = "too short";
        return std::nullopt;
    }
    if (data[at_op] != op || data[at_hardware_type] != ethernet || data[at_hardware_size] != hardware_size) {
        *error = op == boot_request ? "no request over Ethernet" : "no reply over Ethernet";
        return std::nullopt;
    }
    auto options = std::equal(cookie.begin(), cookie.end(), data + at_cookie) ? all_options(data, size) : std::nullopt;
    if (!options) {
        *error = "malformed";
        return std::nullopt;
    }
    const Bytes number = option_of(*options, option_message_type);
    if (number.size() != 1 || number[0] < 1 || number[0] > 8) {
        *error = "no message type";
        return std::nullopt;
    }
    *type = static_cast<DhcpType>(number[0]);
    return options;
}

} // namespace

bool parse_dhcp(const std::uint8_t *data, std::size_t size, DhcpMessage *message, std::string *error) {
    DhcpType type{};
    const auto options = options_of_message(data, size, boot_request, &type, error);
    if (!options)
        return false;
    const std::uint8_t *hardware = data + at_hardware;
    if ((hardware[0] & 1) ||
        std::all_of(hardware, hardware + hardware_size, [](std::uint8_t byte) { return byte == 0; })) {
        *error = "no unicast hardware address";
        return false;
    }
    *message = {};
    message->type = type;
    message->xid = network_number(data + at_xid);
    message->broadcast = (data[at_flags] & broadcast_bit) != 0;
    message->client_address = network_number(data + at_client_address);
    message->relay = network_number(data + at_relay);
    std::copy_n(hardware, message->hardware.size(), message->hardware.begin());
    message->client_id = option_of(*options, option_client_id);
    message->relay_agent = option_of(*options, option_relay_agent);
    message->wanted_options = option_of(*options, option_wanted_options);
    message->host_name = text_of(*options, option_host_name);
    message->vendor_class = text_of(*options, option_vendor_class);
    message->requested_address = number_of(*options, option_requested_address);
    message->server_id = number_of(*options, option_server_id);
    message->lease_time = number_of(*options, option_lease_time);
    return true;
}

bool parse_dhcp_answer(const std::uint8_t *data, std::size_t size, DhcpAnswer *answer, std::string *error) {
    DhcpType type{};
    const auto options = options_of_message(data, size, boot_reply, &type, error);
    if (!options)
        return false;
    if (type != DhcpType::Offer && type != DhcpType::Ack && type != DhcpType::Nak) {
        *error = "no server's message type";
        return false;
    }
    *answer = {type, network_number(data + at_xid), number_of(*options, option_server_id)};
    return true;
}

Bytes build_dhcp_reply(const DhcpMessage &request, const DhcpReply &reply) {
    Bytes message(at_options);
    message[at_op] = boot_reply;
    message[at_hardware_type] = ethernet;
    message[at_hardware_size] = hardware_size;
    put_number(&message, at_xid, request.xid);
    const bool to_all = request.broadcast || (request.relay != 0 && reply.type == DhcpType::Nak); /* RFC 2131, 4.3.2 */
    message[at_flags] = to_all ? broadcast_bit : 0;
    if (reply.type == DhcpType::Ack)
        put_number(&message, at_client_address, request.client_address);
    put_number(&message, at_your_address, reply.your_address);
    put_number(&message, at_relay, request.relay);
    std::copy(request.hardware.begin(), request.hardware.end(), message.begin() + at_hardware);
    std::copy(cookie.begin(), cookie.end(), message.begin() + at_cookie);
    append_option(&message, option_message_type, {static_cast<std::uint8_t>(reply.type)});
    append_option(&message, option_server_id, network_bytes(reply.server));
    for (const auto &[number, value] : reply.options)
        if (!is_formed_here(number))
            append_option(&message, number, value);
    if (!request.client_id.empty())
        append_option(&message, option_client_id, request.client_id);
    if (!request.relay_agent.empty())
        append_option(&message, option_relay_agent, request.relay_agent);
    message.push_back(option_end);
    if (message.size() < minimum_size)
        message.resize(minimum_size);
    return message;
}

} // namespace keel

/* DHCP messages off the wire, of clients and of servers, and the reply to each that is taken. */
#include <tins/dhcp.h>

#include <algorithm>

#include "host/dhcp/packet.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;

namespace {

/* An option's pieces put together again, as another maker reads them. */
Bytes data_of(const Tins::DHCP &packet, int number) {
    Bytes joined;
    for (const auto &option : packet.options())
        if (option.option() == number)
            joined.insert(joined.end(), option.data_ptr(), option.data_ptr() + option.data_size());
    return joined;
}

void check_reply(const DhcpMessage &request) {
    const DhcpReply reply{DhcpType::Ack, 0xc0a80114, 0xc0a80101, {{1, {255, 255, 255, 0}}, {42, request.client_id}}};
    const Bytes bytes = build_dhcp_reply(request, reply);
    DhcpAnswer answer;
    std::string error;
    fuzz::require(parse_dhcp_answer(fuzz::bare(bytes).get(), bytes.size(), &answer, &error), "the reply: " + error);
    fuzz::require(answer.type == DhcpType::Ack && answer.xid == request.xid && answer.server_id == reply.server,
                  "the reply says what it shall");
    const Tins::DHCP other(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    fuzz::require(other.type() == Tins::DHCP::ACK && other.yiaddr() == "192.168.1.20", "another maker reads it");
    fuzz::require(data_of(other, 42) == request.client_id && data_of(other, 61) == request.client_id &&
                      data_of(other, 82) == request.relay_agent,
                  "long options come whole, and the client's own come back");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    DhcpMessage message;
    DhcpAnswer answer;
    std::string client_error;
    std::string server_error;
    message.xid = answer.xid = 1; /* which a refusal must leave */
    const bool client = parse_dhcp(data, size, &message, &client_error);
    const bool server = parse_dhcp_answer(data, size, &answer, &server_error);
    fuzz::require(!(client && server), "no message is a client's and a server's");
    fuzz::require(client == client_error.empty() && server == server_error.empty(), "a refusal has a reason");
    fuzz::require(server || (answer.xid == 1 && answer.server_id == 0), "a refused answer sets nothing");
    if (!client) {
        fuzz::require(message.xid == 1 && message.client_id.empty(), "a refusal sets nothing");
        return 0;
    }
    fuzz::require(message.client_id.size() + message.host_name.size() + message.wanted_options.size() <= size,
                  "nothing is read twice");
    fuzz::require((message.hardware[0] & 1) == 0, "the client is one device");
    check_reply(message);
    return 0;
}

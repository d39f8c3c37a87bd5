#include "routed/utils.h"

#include "frame/trace.h"

namespace {

enum { mac_bytes = 6, mac_text_length = 17 };

const char zone[] = "utils";

uint8_t address[mac_bytes];
char identifier[2 + 2 * mac_bytes + 1];

} // namespace

int zep_utils_system(const char *command) {
    if (system(command) == 0)
        return 1;
    ZEP_ERROR(zone, "Command[%s] failed", command);
    return 0;
}

const char *zep_utils_format_option61(const char *mac, int32_t offset) {
    const bool whole = strlen(mac) == mac_text_length;
    for (int i = 0; i < mac_bytes; ++i)
        address[i] = whole ? static_cast<uint8_t>(strtoul(mac + ptrdiff_t{3} * i, nullptr, 16)) : 0;
    int64_t carry = offset;
    for (int i = mac_bytes - 1; i >= 0 && carry != 0; --i) {
        const int64_t sum = address[i] + carry;
        address[i] = static_cast<uint8_t>(sum);
        carry = sum >> 8;
    }
    sprintf(identifier, "01%02x%02x%02x%02x%02x%02x", address[0], address[1], address[2], address[3], address[4],
            address[5]);
    return identifier;
}

#include "keelctl/pcapng.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace keelctl {

namespace {

enum : std::uint32_t { section_block = 0x0a0d0d0a, interface_block = 1, packet_block = 6, counts_block = 5 };
enum : std::uint16_t { end_of_options = 0, name_option = 2, description_option = 3, seen_option = 4, lost_option = 5 };
constexpr std::uint32_t byte_order = 0x1a2b3c4d;
constexpr std::uint16_t ethernet = 1;
constexpr std::uint32_t snapshot_length = 262144;

/* In the machine's order, which the section block tells. */
template <typename Number> std::string bytes_of(Number number) {
    std::string bytes(sizeof number, '\0');
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

std::string padded(std::string data) {
    data.resize((data.size() + 3) / 4 * 4, '\0');
    return data;
}

std::string option(std::uint16_t number, const std::string &value) {
    return bytes_of(number) + bytes_of(static_cast<std::uint16_t>(value.size())) + padded(value);
}

/* In microseconds, its upper half first. */
std::string stamp(timeval time) {
    const auto us = static_cast<std::uint64_t>(time.tv_sec) * 1000000 + static_cast<std::uint64_t>(time.tv_usec);
    return bytes_of(static_cast<std::uint32_t>(us >> 32)) + bytes_of(static_cast<std::uint32_t>(us));
}

} // namespace

PcapngFile::PcapngFile(const std::string &file) : name_(file), file_(stdout) {
    if (file != "-") {
        unlink(file.c_str()); /* so that the new file's mode is its own */
        const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        file_ = descriptor < 0 ? nullptr : fdopen(descriptor, "wb");
        if (!file_)
            throw std::runtime_error(file + " cannot be written: " + std::strerror(errno));
    }
    constexpr std::uint16_t major = 1;
    constexpr std::uint16_t minor = 0;
    constexpr std::int64_t length_unknown = -1;
    write(section_block, bytes_of(byte_order) + bytes_of(major) + bytes_of(minor) + bytes_of(length_unknown));
}

PcapngFile::~PcapngFile() {
    if (file_ != stdout)
        std::fclose(file_);
}

void PcapngFile::write(std::uint32_t type, const std::string &body) {
    const std::string length = bytes_of(static_cast<std::uint32_t>(body.size() + 12));
    const std::string block = bytes_of(type) + length + body + length;
    if (std::fwrite(block.data(), 1, block.size(), file_) != block.size() || std::fflush(file_) != 0)
        throw std::runtime_error(name_ + " cannot be written: " + std::strerror(errno));
}

std::uint32_t PcapngFile::add_interface(const std::string &name, const std::string &description) {
    constexpr std::uint16_t reserved = 0;
    write(interface_block, bytes_of(ethernet) + bytes_of(reserved) + bytes_of(snapshot_length) +
                               option(name_option, name) + option(description_option, description) +
                               option(end_of_options, ""));
    return interfaces_++;
}

void PcapngFile::add_frame(std::uint32_t interface, timeval time, std::span<const std::uint8_t> kept,
                           std::uint32_t length) {
    write(packet_block, bytes_of(interface) + stamp(time) + bytes_of(static_cast<std::uint32_t>(kept.size())) +
                            bytes_of(length) + padded(std::string(kept.begin(), kept.end())));
}

void PcapngFile::add_counts(std::uint32_t interface, std::uint64_t seen, std::uint64_t lost) {
    timeval now{};
    gettimeofday(&now, nullptr);
    write(counts_block, bytes_of(interface) + stamp(now) + option(seen_option, bytes_of(seen)) +
                            option(lost_option, bytes_of(lost)) + option(end_of_options, ""));
}

} // namespace keelctl

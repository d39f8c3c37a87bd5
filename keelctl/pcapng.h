/*
 * A file of captured packets in the form "pcapng", which has room for several interfaces in one file.
 */
#ifndef KEELCTL_PCAPNG_H
#define KEELCTL_PCAPNG_H

#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

namespace keelctl {

/* Whole after each call, so that a file that is read while it grows, or ends anywhere, can be read. */
class PcapngFile {
public:
    /* "-" is standard output. Any other file is for its owner alone; one of that name is replaced. Throws
     * std::runtime_error when it cannot be had, as the others do when it cannot be written. */
    explicit PcapngFile(const std::string &file);
    PcapngFile(const PcapngFile &) = delete;
    PcapngFile &operator=(const PcapngFile &) = delete;
    ~PcapngFile();

    /* An Ethernet interface; returns its number. */
    std::uint32_t add_interface(const std::string &name, const std::string &description);
    /* As much of the frame as is to be kept, and how long it was. */
    void add_frame(std::uint32_t interface, timeval time, std::span<const std::uint8_t> kept, std::uint32_t length);
    /* What was seen, and what of it was lost before it could be taken. */
    void add_counts(std::uint32_t interface, std::uint64_t seen, std::uint64_t lost);

private:
    void write(std::uint32_t type, const std::string &body);

    std::string name_;
    std::FILE *file_;
    std::uint32_t interfaces_ = 0;
};

} // namespace keelctl

#endif

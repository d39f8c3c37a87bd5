/*
 * The multicast streams that the kernel knows of, and how much of each comes.
 */
#ifndef HOST_LINUX_STREAMS_H
#define HOST_LINUX_STREAMS_H

#include <cstdint>
#include <map>
#include <string>

#include "host/base/loop.h"
#include "host/model/model.h"

namespace keel {

/* proc(5) writes an address as the hexadecimal number that its bytes are in this machine's memory. */
std::string address_of_table(const std::string &hex);

struct StreamState {
    bool forwarded = false;    /* somebody has told the kernel where to */
    std::uint64_t packets = 0; /* that have come, of all origins; 0 while it is not forwarded */
};

/* By group, those of which something has come lately. */
std::map<std::string, StreamState> read_streams();

/* Notes in the timeline how many packets of each group come in a second, whenever that has changed by more than a
 * fifth. Looks every two seconds while a stream comes, else every five, and only while the multicast daemon runs. */
class StreamRates {
public:
    StreamRates(Loop &loop, Model &model);
    StreamRates(const StreamRates &) = delete;
    StreamRates &operator=(const StreamRates &) = delete;
    ~StreamRates();

private:
    struct Known {
        std::uint64_t packets = 0;
        std::uint64_t told = 0; /* the rate, in packets per second */
    };

    void follow_daemon();
    void look();
    void tell(const std::string &group, Known &known, std::uint64_t rate);

    Loop &loop_;
    Model &model_;
    Model::WatchId watch_;
    Loop::TimerId timer_ = 0;
    std::uint64_t looked_ms_ = 0;
    std::map<std::string, Known> known_;
};

} // namespace keel

#endif

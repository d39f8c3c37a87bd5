#include "host/linux/streams.h"

#include <arpa/inet.h>

#include <fstream>
#include <sstream>

#include "host/base/text_forms.h"
#include "host/base/timeline.h"

namespace keel {

namespace {

constexpr const char *daemon_path = "TIDE.Intf.iptv";
constexpr std::uint64_t while_streaming_ms = 2000;
constexpr std::uint64_t while_idle_ms = 5000;

} // namespace

std::string address_of_table(const std::string &hex) {
    std::uint32_t number = 0;
    std::istringstream(hex) >> std::hex >> number;
    return format_ipv4(ntohl(number));
}

/* The columns are group, origin, interface (negative while nobody has said what to do with it), packets, bytes, wrong
 * ones, and where it goes. */
std::map<std::string, StreamState> read_streams() {
    std::ifstream table("/proc/self/net/ip_mr_cache");
    std::map<std::string, StreamState> found;
    std::string line;
    std::getline(table, line); /* the head */
    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::string group;
        std::string origin;
        int from = -1;
        std::uint64_t packets = 0;
        words >> group >> origin >> from >> packets;
        StreamState &state = found[address_of_table(group)];
        state.forwarded = state.forwarded || (from >= 0 && line.find(':') != std::string::npos);
        state.packets += packets;
    }
    return found;
}

StreamRates::StreamRates(Loop &loop, Model &model)
    : loop_(loop), model_(model),
      watch_(model.watch(daemon_path, [this](const Event &) { follow_daemon(); }, {{"Status"}, false})) {
    follow_daemon();
}

StreamRates::~StreamRates() {
    model_.unwatch(watch_);
    loop_.cancel_timer(timer_);
}

void StreamRates::follow_daemon() {
    const bool runs = model_.text(daemon_path, "Status") == "Running";
    if (runs && !timer_)
        timer_ = loop_.start_timer(while_idle_ms, [this] { look(); });
}

void StreamRates::look() {
    timer_ = 0;
    const std::uint64_t now = loop_.now_ms();
    const auto streams = read_streams();
    bool coming = false;
    for (const auto &[group, state] : streams) {
        const auto [found, fresh] = known_.try_emplace(group, Known{state.packets, 0});
        Known &known = found->second;
        const std::uint64_t more = state.packets > known.packets ? state.packets - known.packets : 0;
        known.packets = state.packets;
        coming = coming || fresh || more > 0;
        if (!fresh && now > looked_ms_)
            tell(group, known, more * 1000 / (now - looked_ms_));
    }
    for (auto known = known_.begin(); known != known_.end();) {
        if (streams.contains(known->first)) {
            ++known;
            continue;
        }
        tell(known->first, known->second, 0);
        known = known_.erase(known);
    }
    looked_ms_ = now;
    if (coming)
        timer_ = loop_.start_timer(while_streaming_ms, [this] { look(); });
    else
        follow_daemon();
}

void StreamRates::tell(const std::string &group, Known &known, std::uint64_t rate) {
    const std::uint64_t change = rate > known.told ? rate - known.told : known.told - rate;
    if (change * 5 <= known.told || change == 0)
        return;
    known.told = rate;
    Timeline::instance().note(TimelineEvent::Kind::Stream, group, std::to_string(rate), "packets per second");
}

} // namespace keel

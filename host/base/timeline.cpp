#include "host/base/timeline.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace keel {

const char *kind_name(TimelineEvent::Kind kind) {
    static const char *const names[] = {"lan",   "wan",  "refused", "lease", "client",
                                        "state", "rule", "route",   "mode",  "stream"};
    return names[static_cast<int>(kind)];
}

Timeline &Timeline::instance() {
    static Timeline timeline;
    return timeline;
}

void Timeline::note(TimelineEvent::Kind kind, std::string who, std::string what, std::string text, Bytes options) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto wall_clock_ms =
        static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
    const bool of_network = kind == TimelineEvent::Kind::LanDhcp || kind == TimelineEvent::Kind::WanDhcp ||
                            kind == TimelineEvent::Kind::Refused;
    auto &kept = of_network ? network_ : kind == TimelineEvent::Kind::Stream ? streams_ : own_;
    if (kept.size() >= most_events)
        kept.pop_front();
    text.resize(std::min(text.size(), longest_text));
    options.resize(std::min(options.size(), longest_options));
    kept.push_back(
        {++noted_, wall_clock_ms, kind, std::move(who), std::move(what), std::move(text), std::move(options)});
}

std::vector<TimelineEvent> Timeline::events() const {
    std::vector<TimelineEvent> all;
    for (const auto *part : {&network_, &streams_, &own_})
        all.insert(all.end(), part->begin(), part->end());
    std::sort(all.begin(), all.end(),
              [](const TimelineEvent &one, const TimelineEvent &other) { return one.number < other.number; });
    return all;
}

void Timeline::clear() {
    network_.clear();
    streams_.clear();
    own_.clear();
}

} // namespace keel

#include "host/model/watches.h"

#include <algorithm>
#include <utility>

#include "host/model/node.h"

namespace keel {

namespace {

bool concerns(const Concern &concern, const Event &event) {
    return event.kind != Event::Kind::Changed || concern.parameters.empty() ||
           std::any_of(concern.parameters.begin(), concern.parameters.end(),
                       [&](const std::string &name) { return event.values.contains(name); });
}

template <typename Map, typename Ref> void take_out(Map &map, const std::string &path, const Ref &watch) {
    const auto found = map.find(path);
    if (found == map.end())
        return;
    std::erase(found->second, watch);
    if (found->second.empty())
        map.erase(found);
}

} // namespace

std::string Event::path() const {
    std::string text;
    for (const std::string &step : steps)
        text = join_path(text, step);
    return text;
}

Watches::Id Watches::add(std::string_view path, Watcher watcher, Concern concern) {
    const auto watch =
        std::make_shared<Watch>(Watch{++last_, std::string(path), std::move(watcher), std::move(concern)});
    by_path_[watch->path].push_back(watch);
    if (watch->concern.appearance)
        appearing_[watch->path].push_back(watch);
    by_id_[watch->id] = watch;
    return watch->id;
}

void Watches::remove(Id id) {
    const auto found = by_id_.find(id);
    if (found == by_id_.end())
        return;
    const WatchRef watch = found->second;
    watch->watcher = nullptr;
    by_id_.erase(found);
    take_out(by_path_, watch->path, watch);
    if (watch->concern.appearance)
        take_out(appearing_, watch->path, watch);
}

/* A watched path is the text of the event's path up to one of its names: "eth1.20" is not below "eth1". */
std::vector<Watches::WatchRef> Watches::concerned_by(const Event &event) const {
    std::vector<WatchRef> all;
    const auto take = [&](const std::vector<WatchRef> &some) {
        std::copy_if(some.begin(), some.end(), std::back_inserter(all),
                     [&](const WatchRef &watch) { return concerns(watch->concern, event); });
    };
    std::string path;
    for (std::size_t depth = 0;; ++depth) {
        if (const auto found = by_path_.find(path); found != by_path_.end())
            take(found->second);
        if (depth == event.steps.size())
            break;
        if (depth)
            path += '.';
        path += event.steps[depth];
    }
    if (event.kind == Event::Kind::Added)
        for (auto at = appearing_.lower_bound(path + "."); at != appearing_.end() && at->first.starts_with(path + ".");
             ++at)
            take(at->second);
    std::sort(all.begin(), all.end(), [](const WatchRef &a, const WatchRef &b) { return a->id < b->id; });
    return all;
}

void Watches::tell(const Event &event) const {
    for (const WatchRef &watch : concerned_by(event)) {
        const Watcher watcher = watch->watcher; /* it may remove itself */
        if (watcher)
            watcher(event);
    }
}

} // namespace keel

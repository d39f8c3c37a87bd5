#include "keelctl/timeline.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <ctime>
#include <optional>
#include <set>

#include "keelctl/diagnosis.h"
#include "keelctl/gateway.h"
#include "keelctl/stbs.h"
#include "keelctl/wan_client.h"

namespace keelctl {

namespace {

std::int64_t now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/* Whose DHCP is in the picture: all but those who are known to be something else. */
bool concerns(const Gateway &gateway, const Device &device) {
    return gateway.is_stb(device) || gateway.looks_like_stb(device);
}

/* Of a device of which the host has told no change. */
std::string state_now(Gateway &gateway, const Device &device) {
    if (device.held)
        return "held";
    const Json *identity = gateway.identity_of(device);
    if (identity && WanClient(gateway, *identity).status == "Unleased")
        return "stop-gap";
    return device.is_there() && diagnose(gateway, device).served() ? "served" : "dark";
}

/* An identity that is gone by now bore the name of its first device. */
void name_clients(Gateway &gateway, TimelineStory &story) {
    story.names["dhcp_iptv"] = "gateway";
    for (const Device &device : gateway.devices)
        story.names["dhcp_zep_" + device.id] = device.name();
    for (const Json &identity : children(gateway.service, {"ClientLease"})) {
        std::string names;
        for (const Json &stored : children(identity, {"ServerLease"})) {
            const Device *device = gateway.device(text(stored, "Id"));
            names += (names.empty() ? "" : ", ") + (device ? device->name() : text(stored, "Id"));
        }
        story.names["dhcp_zep_" + text(identity, "Name")] = names;
    }
}

/* Each change tells what was before it, so that also what began before the first event is known; and what began before
 * the time that is drawn is known by the last change before that. */
Strip strip_of(Gateway &gateway, const Device &device, const TimelineStory &story, const std::vector<Json> &events) {
    Strip strip{device.name(), {}};
    for (const Json &event : events) {
        if (event["kind"] != "state" || event["who"] != device.mac)
            continue;
        const std::int64_t time_ms = event["time_ms"];
        if (time_ms < story.from_ms) {
            strip.parts = {{story.from_ms, event["what"]}};
            continue;
        }
        if (strip.parts.empty())
            strip.parts.push_back({story.from_ms, event["text"]});
        strip.parts.push_back({time_ms, event["what"]});
    }
    if (strip.parts.empty())
        strip.parts.push_back({story.from_ms, state_now(gateway, device)});
    return strip;
}

std::optional<int> number_in(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= 0 ? std::optional(number)
                                                                                   : std::nullopt;
}

/* A rate from before the time that is drawn holds at its beginning. */
void add_rate(TimelineStory &story, const Json &event, std::int64_t since_ms) {
    const std::string group = event["who"];
    auto found = std::find_if(story.streams.begin(), story.streams.end(),
                              [&](const StreamStrip &one) { return one.group == group; });
    if (found == story.streams.end())
        found = story.streams.insert(found, {group, {}});
    const std::int64_t time_ms = event["time_ms"];
    if (time_ms <= since_ms)
        found->parts.clear();
    found->parts.push_back({std::max(time_ms, since_ms), number_in(event["what"].get<std::string>()).value_or(0)});
}

} // namespace

std::vector<Json> timeline_events(Client &client) {
    std::vector<Json> events;
    client.send({{"op", "timeline"}});
    for (;;) {
        const auto line = client.next();
        if (!line)
            throw Unreachable("the host closed the connection");
        if (line->contains("ok")) {
            if (!line->value("ok", false)) /* a host of another version */
                throw Refused(line->value("error", "refused"));
            return events;
        }
        events.push_back(*line);
    }
}

TimelineStory gather_story(Client &client, std::int64_t since_ms) {
    TimelineStory story;
    const std::vector<Json> events = timeline_events(client);
    client.look();
    Gateway gateway(client, Gateway::Devices::All);
    story.headline = headline(stbs_of(gateway));
    story.to_ms = now_ms();
    std::set<std::string> others;
    for (const Device &device : gateway.devices) {
        story.names[device.mac] = device.name();
        if (!concerns(gateway, device))
            others.insert(device.mac);
    }
    name_clients(gateway, story);
    for (const Json &event : events)
        if (event["kind"] == "state")
            others.erase(event["who"].get<std::string>());
    for (const Json &event : events)
        if (event["kind"] == "stream")
            add_rate(story, event, since_ms);
        else if (event["time_ms"] >= since_ms && !others.contains(event["who"].get<std::string>()))
            story.moments.push_back({event["time_ms"], event["kind"], event["who"], event["what"], event["text"],
                                     event.value("options", "")});
    story.from_ms = since_ms ? since_ms : story.moments.empty() ? story.to_ms : story.moments.front().time_ms;
    for (const Device &device : gateway.devices)
        if (!device.mac.empty() && !others.contains(device.mac))
            story.strips.push_back(strip_of(gateway, device, story, events));
    return story;
}

std::int64_t time_since(const std::string &text, std::int64_t now) {
    static const std::map<char, std::int64_t> units = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
    const auto unit = text.empty() ? units.end() : units.find(text.back());
    if (unit != units.end())
        if (const auto count = number_in(std::string_view(text).substr(0, text.size() - 1)))
            return now - *count * unit->second * 1000;
    if ((text.size() == 5 || text.size() == 8) && text[2] == ':' && (text.size() == 5 || text[5] == ':')) {
        const std::string_view view = text;
        const auto hour = number_in(view.substr(0, 2));
        const auto minute = number_in(view.substr(3, 2));
        const auto second = text.size() == 8 ? number_in(view.substr(6, 2)) : 0;
        const auto today = static_cast<std::time_t>(now / 1000);
        std::tm local{};
        localtime_r(&today, &local);
        if (hour && minute && second && *hour < 24 && *minute < 60 && *second < 60) {
            local.tm_hour = *hour;
            local.tm_min = *minute;
            local.tm_sec = *second;
            local.tm_isdst = -1;
            return std::int64_t{std::mktime(&local)} * 1000;
        }
    }
    throw Refused("\"" + text + "\" is no time: 10m (or s, h, d) ago, or 10:31 or 10:31:07 of today");
}

} // namespace keelctl

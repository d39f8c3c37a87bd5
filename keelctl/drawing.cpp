#include "keelctl/drawing.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "keelctl/dhcp_options.h"

namespace keelctl {

namespace {

constexpr int width = 1000;
constexpr int row_height = 21;
constexpr int head_height = 34;
constexpr int gap_height = 16;
constexpr std::int64_t gap_ms = 1000;      /* a pause that is told */
constexpr std::int64_t answered_ms = 1000; /* what is answered later than that was held */
constexpr std::size_t rows_of_a_part = 60; /* a part fits on a printed page */
constexpr std::size_t longest_label = 91;

enum Lane : int { lane_operator = 150, lane_client = 370, lane_host = 510, lane_server = 715, lane_stb = 945 };

struct LaneName {
    Lane at;
    const char *name;
};
constexpr LaneName lanes[] = {{lane_operator, "operator"},
                              {lane_client, "WAN client"},
                              {lane_host, "keelhost"},
                              {lane_server, "LAN server"},
                              {lane_stb, "STB"}};

constexpr const char *style = R"(
svg{font:11px sans-serif;--text:#1c1c1c;--back:#fff;--dim:#767676;--held:#7a7a7a;--served:#1a7f37;--refused:#c62828;
--gap:#b26a00;--dark:#3a3a3a;--own:#1f5fbf;display:block;max-width:1000px;width:100%;height:auto;background:var(--back)}
@media (prefers-color-scheme:dark){svg{--text:#e4e4e4;--back:#161616;--dim:#8d8d8d;--held:#9a9a9a;--served:#3fb950;
--refused:#ff6b61;--gap:#e0a030;--dark:#555;--own:#6ea8ff}}
@media print{svg{--text:#000;--back:#fff;--dim:#555;--held:#777;--served:#1a7f37;--refused:#c62828;--gap:#b26a00;
--dark:#333;--own:#1f5fbf;break-inside:avoid}*{print-color-adjust:exact;-webkit-print-color-adjust:exact}}
text{fill:var(--text);paint-order:stroke;stroke:var(--back);stroke-width:3px}
.time,.pause{fill:var(--dim);font-size:10px}.pause{text-anchor:middle}.lane{stroke:var(--dim);opacity:.5}
.name{font-weight:bold;text-anchor:middle}.middle{text-anchor:middle}.left{text-anchor:end}
.command{font:8.8px monospace}.band{stroke:var(--own);stroke-dasharray:2 3}
.held{--c:var(--held)}.served{--c:var(--served)}.refused{--c:var(--refused)}.stop-gap{--c:var(--gap)}
.dark{--c:var(--dark)}.own{--c:var(--own)}
.arrow line{stroke:var(--c);stroke-width:1.6}.arrow.held line{stroke-dasharray:5 3}
.arrow path,.mark,.part{fill:var(--c)}
)";

constexpr const char *page_style = R"(
body{font:14px sans-serif;color:#1c1c1c;background:#fff;margin:1.5em auto;max-width:1000px;padding:0 1em}
h1{font-size:1.3em}h2{font-size:1.05em;margin-top:1.6em}
@media (prefers-color-scheme:dark){body{color:#e4e4e4;background:#161616}}
@media print{body{color:#000;background:#fff;margin:0;max-width:none}}
)";

std::string escaped(const std::string &text) {
    std::string out;
    for (const char c : text)
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += static_cast<unsigned char>(c) < ' ' && c != '\n' ? '?' : c;
        }
    return out;
}

std::string clock_text(std::int64_t ms, const char *format, bool milliseconds) {
    const auto seconds = static_cast<std::time_t>(ms / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 64> time{};
    std::strftime(time.data(), time.size(), format, &local);
    std::string text = time.data();
    if (milliseconds) {
        std::array<char, 8> part{};
        std::snprintf(part.data(), part.size(), ".%03d", static_cast<int>(ms % 1000));
        text += part.data();
    }
    return text;
}

std::string length_text(std::int64_t ms) {
    const std::int64_t seconds = (ms + 500) / 1000;
    if (ms < 10000) {
        std::array<char, 24> text{};
        std::snprintf(text.data(), text.size(), "%.1f s", static_cast<double>(ms) / 1000);
        return text.data();
    }
    return seconds < 120 ? std::to_string(seconds) + " s" : std::to_string(seconds / 60) + " min";
}

std::string text_at(int x, int y, const std::string &text, const char *classes) {
    return "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\" class=\"" + classes + "\">" +
           escaped(text) + "</text>";
}

std::string title(const std::string &text) {
    return "<title>" + escaped(text) + "</title>";
}

bool is_of_server(const std::string &type) {
    return type == "OFFER" || type == "ACK" || type == "NAK";
}

/* -------------------------------------------------------------------------------------------------------- lanes */

class Lanes {
public:
    explicit Lanes(const TimelineStory &story) : story_(story) {}

    /* The moments from one to another as the inside of an SVG, downwards from y; returns where it ends. */
    int draw(std::size_t first, std::size_t last, int y, std::string &out) {
        const int top = y + head_height;
        int at = top;
        std::string rows;
        for (std::size_t i = first; i < last; ++i) {
            const Moment &moment = story_.moments[i];
            const std::int64_t pause = i == first ? 0 : moment.time_ms - story_.moments[i - 1].time_ms;
            if (pause >= gap_ms) {
                rows += text_at(45, at + 10, "· " + length_text(pause) + " ·", "pause");
                at += gap_height;
            }
            at += row_height;
            rows += text_at(8, at - 5, clock_text(moment.time_ms, "%H:%M:%S", true), "time") + row(i, at - 9) + "\n";
        }
        const int end = at + 12;
        for (const LaneName &lane : lanes) {
            const std::string x = std::to_string(lane.at);
            out += text_at(lane.at, y + 18, lane.name, "name") + "<line class=\"lane\" x1=\"" + x + "\" x2=\"" + x +
                   "\" y1=\"" + std::to_string(y + 24) + "\" y2=\"" + std::to_string(end) + "\"/>\n";
        }
        out += rows;
        return end;
    }

private:
    std::string row(std::size_t index, int y) const {
        const Moment &moment = story_.moments[index];
        const std::string name = story_.name_of(moment.who);
        const std::string more = moment.text.empty() ? "" : " " + moment.text;
        if (moment.kind == "lan")
            return arrow(index, lane_stb, lane_server, y);
        if (moment.kind == "wan")
            return arrow(index, lane_client, lane_operator, y);
        if (moment.kind == "client")
            return mark(lane_client, y, "own", moment.what + more + " · " + name, false, moment.who);
        if (moment.kind == "lease")
            return mark(lane_server, y,
                        moment.what == "released" ? "served"
                        : moment.what == "held"   ? "held"
                                                  : "dark",
                        moment.what + more + " · " + name, true, moment.who);
        if (moment.kind == "refused")
            return mark(lane_server, y, "refused", moment.text + " · " + name, true, moment.who);
        if (moment.kind == "state")
            return mark(lane_stb, y, moment.what, moment.what + " · " + name, true, "before: " + moment.text);
        if (moment.kind == "rule")
            return rule(moment, y);
        if (moment.kind == "route")
            return mark(lane_host, y, moment.what == "error" ? "refused" : "own",
                        "route " + moment.text + " dev " + moment.who + ": " +
                            (moment.what == "Enabled" ? "in force" : moment.what),
                        false, "");
        const std::string at = std::to_string(y);
        return "<line class=\"band\" x1=\"100\" x2=\"" + std::to_string(width - 10) + "\" y1=\"" + at + "\" y2=\"" +
               at + "\"/>" + mark(lane_host, y, "own", moment.what + "=" + moment.text, false, "a setting");
    }

    /* Grey what is not answered, or late; green what is answered and the answer; red a refusal. */
    const char *colour_of(std::size_t index) const {
        const Moment &moment = story_.moments[index];
        if (is_of_server(moment.what))
            return moment.what == "NAK" ? "refused" : "served";
        for (std::size_t i = index + 1; i < story_.moments.size(); ++i) {
            const Moment &next = story_.moments[i];
            if (next.kind == moment.kind && next.who == moment.who)
                return is_of_server(next.what) && next.time_ms - moment.time_ms <= answered_ms ? "served" : "held";
        }
        return "held";
    }

    std::string arrow(std::size_t index, int client, int server, int y) const {
        const Moment &moment = story_.moments[index];
        const bool answer = is_of_server(moment.what);
        const int from = answer ? server : client;
        const int to = answer ? client : server;
        const int back = to > from ? -7 : 7; /* from the tip */
        const std::string at = std::to_string(y + 5);
        const std::string tip = std::to_string(to);
        const std::string base = std::to_string(to + back);
        return std::string("<g class=\"arrow ") + moment.kind + " " + colour_of(index) + "\">" +
               title(moment.what + " " + moment.who + "\n" + describe_options(moment.options)) + "<line x1=\"" +
               std::to_string(from) + "\" x2=\"" + base + "\" y1=\"" + at + "\" y2=\"" + at + "\"/><path d=\"M" + tip +
               " " + at + "L" + base + " " + std::to_string(y + 1) + "L" + base + " " + std::to_string(y + 9) +
               "Z\"/>" +
               text_at((from + to) / 2, y + 1,
                       moment.what + (moment.text.empty() ? "" : " " + moment.text) + " · " +
                           story_.name_of(moment.who),
                       "middle") +
               "</g>";
    }

    static std::string mark(int x, int y, const std::string &colour, const std::string &label, bool to_left,
                            const std::string &more) {
        return "<g class=\"" + colour + "\">" + title(more.empty() ? label : label + "\n" + more) +
               "<circle class=\"mark\" cx=\"" + std::to_string(x) + "\" cy=\"" + std::to_string(y) + "\" r=\"4\"/>" +
               text_at(to_left ? x - 9 : x + 9, y + 4, label, to_left ? "left" : "") + "</g>";
    }

    /* The folders of the programs say nothing here. */
    static std::string rule(const Moment &moment, int y) {
        std::string label = moment.text;
        for (const std::string_view folder : {"/usr/sbin/", "/usr/bin/"})
            if (label.starts_with(folder))
                label.erase(0, folder.size());
        if (label.size() > longest_label)
            label = label.substr(0, longest_label - 1) + "…";
        const bool failed = moment.what != "done";
        return std::string("<g class=\"rule ") + (failed ? "refused" : "own") + "\">" +
               title(moment.text + (failed ? "\nfailed" : "")) + "<rect class=\"mark\" x=\"" +
               std::to_string(lane_host - 6) + "\" y=\"" + std::to_string(y - 1) + "\" width=\"12\" height=\"2.5\"/>" +
               text_at(lane_host + 9, y + 4, failed ? label + "  FAILED" : label, "command") + "</g>";
    }

    const TimelineStory &story_;
};

/* ------------------------------------------------------------------------------------------------------- strips */

constexpr int strip_left = 150;
constexpr int strip_right = width - 20;

/* Where a time is on a strip. */
int x_of(const TimelineStory &story, std::int64_t ms) {
    const double span = static_cast<double>(std::max<std::int64_t>(story.to_ms - story.from_ms, 1));
    const double part = static_cast<double>(ms - story.from_ms) / span;
    return strip_left + static_cast<int>(std::clamp(part, 0.0, 1.0) * (strip_right - strip_left));
}

/* A rectangle from one time to another, of that height above a line at y. */
std::string part_of_strip(const TimelineStory &story, const char *state, std::int64_t from_ms, std::int64_t to_ms,
                          int y, int height, const std::string &told) {
    const int x = x_of(story, from_ms);
    return std::string("<rect class=\"part ") + state + "\" x=\"" + std::to_string(x) + "\" y=\"" +
           std::to_string(y - height) + "\" width=\"" + std::to_string(std::max(x_of(story, to_ms) - x, 1)) +
           "\" height=\"" + std::to_string(height) + "\">" +
           title(told + " from " + clock_text(from_ms, "%H:%M:%S", true) + ", for " + length_text(to_ms - from_ms)) +
           "</rect>";
}

/* When the part of a strip ends. */
template <typename Parts> std::int64_t end_of(const TimelineStory &story, const Parts &parts, std::size_t index) {
    return index + 1 < parts.size() ? parts[index + 1].from_ms : story.to_ms;
}

/* As high as the most that came of the group. */
void draw_stream(const TimelineStory &story, const StreamStrip &stream, int y, std::string &out) {
    constexpr int height = 16;
    std::int64_t most = 1;
    for (const auto &part : stream.parts)
        most = std::max(most, part.rate);
    out += "<g class=\"stream\">" + text_at(8, y + 14, stream.group + ", up to " + std::to_string(most) + "/s", "");
    for (std::size_t i = 0; i < stream.parts.size(); ++i)
        if (const auto &part = stream.parts[i]; part.rate > 0)
            out += part_of_strip(story, "own", part.from_ms, end_of(story, stream.parts, i), y + 2 + height,
                                 std::max(static_cast<int>(part.rate * height / most), 1),
                                 stream.group + ": " + std::to_string(part.rate) + " packets per second");
    out += "</g>\n";
}

int draw_strips(const TimelineStory &story, int y, std::string &out) {
    constexpr int left = strip_left;
    constexpr int right = strip_right;
    for (const Strip &strip : story.strips) {
        out += "<g class=\"strip\">" + text_at(8, y + 14, strip.name, "");
        for (std::size_t i = 0; i < strip.parts.size(); ++i)
            out += part_of_strip(story, strip.parts[i].state.c_str(), strip.parts[i].from_ms,
                                 end_of(story, strip.parts, i), y + 18, 16, strip.name + ": " + strip.parts[i].state);
        out += "</g>\n";
        y += 24;
    }
    for (const StreamStrip &stream : story.streams) {
        draw_stream(story, stream, y, out);
        y += 24;
    }
    out += text_at(left, y + 10, clock_text(story.from_ms, "%H:%M:%S", false), "time") +
           text_at(right, y + 10, clock_text(story.to_ms, "%H:%M:%S", false), "time left");
    int x = left + 150;
    for (const char *state : {"dark", "held", "stop-gap", "served"}) {
        out += std::string("<g class=\"") + state + "\"><rect class=\"part\" x=\"" + std::to_string(x) + "\" y=\"" +
               std::to_string(y + 1) + "\" width=\"12\" height=\"10\"/>" + text_at(x + 17, y + 10, state, "") + "</g>";
        x += 100;
    }
    return y + 18;
}

std::string svg(int height, const std::string &inside, const char *more) {
    return std::string("<svg xmlns=\"http://www.w3.org/2000/svg\"") + more + " viewBox=\"0 0 " + std::to_string(width) +
           " " + std::to_string(height) + "\">\n" + inside + "</svg>\n";
}

std::string span_text(const TimelineStory &story) {
    return clock_text(story.from_ms, "%Y-%m-%d %H:%M:%S", false) + " to " + clock_text(story.to_ms, "%H:%M:%S", false);
}

} // namespace

std::string draw_page(const TimelineStory &story) {
    std::string page = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                       "<meta name=\"color-scheme\" content=\"light dark\"><title>IPTV timeline</title><style>" +
                       std::string(page_style) + style + "</style></head><body>\n<h1>IPTV service, " +
                       escaped(span_text(story)) + "</h1>\n<p>" + escaped(story.headline) +
                       "</p>\n<p>Time runs downwards, and pauses are told. An arrow is a DHCP message: grey when it is "
                       "not answered or late, green when it is, red for a refusal; its options show when the pointer "
                       "is on it.</p>\n";
    Lanes drawn(story);
    for (std::size_t first = 0; first < story.moments.size(); first += rows_of_a_part) {
        std::string inside;
        const int end = drawn.draw(first, std::min(first + rows_of_a_part, story.moments.size()), 0, inside);
        page += svg(end, inside, "");
    }
    if (story.moments.empty())
        page += "<p>Nothing has happened in this time.</p>\n";
    std::string strips;
    const int height = draw_strips(story, 4, strips);
    return page + "<h2>How each STB was served, and what came of the streams</h2>\n" + svg(height, strips, "") +
           "</body></html>\n";
}

std::string draw_svg(const TimelineStory &story) {
    std::string inside = std::string("<style>") + style + "</style>\n";
    Lanes drawn(story);
    const int lanes_end = drawn.draw(0, story.moments.size(), 0, inside);
    const int end = draw_strips(story, lanes_end + 14, inside);
    return svg(end, inside,
               (" width=\"" + std::to_string(width) + "\" height=\"" + std::to_string(end) + "\"").c_str());
}

} // namespace keelctl

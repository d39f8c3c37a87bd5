#include "tests/simulate/table.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace keel {

namespace {
constexpr std::size_t width = 20;

std::string padded(const std::string &text) {
    return text.size() < width ? text + std::string(width - text.size(), ' ') : text.substr(0, width - 1) + " ";
}
} // namespace

void Table::add(std::uint64_t at_ms, std::size_t column, std::string text) {
    const auto mix = [&](std::uint64_t byte) { digest_ = (digest_ ^ (byte & 255)) * 1099511628211U; };
    for (unsigned shift = 0; shift < 64; shift += 8)
        mix(at_ms >> shift);
    mix(column);
    for (const char one : text)
        mix(static_cast<unsigned char>(one));
    ++events_;
    /* One that only says the same again, as who asks in vain does, is counted where it said so first. */
    const auto before =
        std::find_if(rows_.rbegin(), rows_.rend(), [&](const Row &row) { return row.column == column; });
    if (column != 0 && before != rows_.rend() && before->text == text) {
        ++before->times;
        return;
    }
    rows_.push_back({at_ms, column, std::move(text), 1});
    if (rows_.size() > kept)
        rows_.pop_front();
}

/* Columns in which nothing happened are left out; the first one has no limit but stands alone in its row. */
std::string Table::text() const {
    std::set<std::size_t> used;
    for (const Row &row : rows_)
        used.insert(row.column);
    used.erase(0);
    std::string all = "          time  ";
    for (const std::size_t column : used)
        all += padded(columns_.at(column));
    all += "\n";
    for (const Row &row : rows_) {
        const std::uint64_t s = row.at_ms / 1000;
        char time[64];
        std::snprintf(time, sizeof time, "%3lud %02lu:%02lu:%02lu.%03lu  ", s / 86400, s / 3600 % 24, s / 60 % 60,
                      s % 60, row.at_ms % 1000);
        std::string line = time;
        const std::string told = row.times > 1 ? row.text + " x" + std::to_string(row.times) : row.text;
        if (row.column == 0) {
            line += "-- " + row.text;
        } else {
            for (const std::size_t column : used)
                if (column <= row.column)
                    line += column == row.column ? told : std::string(width, ' ');
        }
        all += line + "\n";
    }
    return all;
}

} // namespace keel

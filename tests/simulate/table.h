/*
 * What has happened, as a table that a person can read: a row for each event, a column for each device.
 */
#ifndef TESTS_SIMULATE_TABLE_H
#define TESTS_SIMULATE_TABLE_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace keel {

class Table {
public:
    explicit Table(std::vector<std::string> columns) : columns_(std::move(columns)) {}

    void add(std::uint64_t at_ms, std::size_t column, std::string text);
    /* The latest rows. */
    std::string text() const;
    /* Of every event so far, kept or not: two runs with the same one were the same. */
    std::uint64_t digest() const { return digest_; }
    std::uint64_t events() const { return events_; }

private:
    static constexpr std::size_t kept = 60;
    struct Row {
        std::uint64_t at_ms;
        std::size_t column;
        std::string text;
        unsigned times;
    };

    std::vector<std::string> columns_;
    std::deque<Row> rows_;
    std::uint64_t digest_ = 14695981039346656037U; /* FNV-1a */
    std::uint64_t events_ = 0;
};

} // namespace keel

#endif

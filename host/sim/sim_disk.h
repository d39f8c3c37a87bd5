/*
 * The disk's twin: files in memory behind SQLite, that refuse to be written when a test says so, and that can be taken
 * back to a moment, as when the process that wrote them was killed then.
 */
#ifndef HOST_SIM_SIM_DISK_H
#define HOST_SIM_SIM_DISK_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace keel {

class SimDisk {
public:
    /* From here on SQLite opens every file on this disk. One at a time; it must outlive all that is open on it. */
    SimDisk();
    SimDisk(const SimDisk &) = delete;
    SimDisk &operator=(const SimDisk &) = delete;
    ~SimDisk();

    /* Every write that needs room is refused as long as it is full. */
    bool full = false;
    /* The Nth write from now fails, once; 0: none. */
    std::uint64_t failing_write = 0;
    /* How many writes were refused so far. */
    std::uint64_t refused = 0;

    /* Somebody deletes all files: who has them open goes on with what no name leads to any more. */
    void take_away() { files_.clear(); }
    bool holds(const std::string &name) const { return files_.contains(name); }
    /* Whatever is open is of no use any more, as when the medium was pulled and plugged in again. */
    void lose_hold() { ++plugged_; }

    /* What is written after this is lost once come_back() is called; nothing may be open on the disk then. */
    void cut();
    void come_back();

private:
    friend struct SimDiskCalls;

    using Content = std::vector<std::uint8_t>;
    struct File {
        Content content;
        std::vector<std::unique_ptr<Content>> shared; /* the index of a write-ahead log */
    };

    std::map<std::string, std::shared_ptr<File>> files_;
    std::map<std::string, Content> saved_;
    unsigned plugged_ = 0;     /* how often */
    std::uint64_t random_ = 1; /* the same in every run */
};

} // namespace keel

#endif

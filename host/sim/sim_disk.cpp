#include "host/sim/sim_disk.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

namespace keel {

namespace {

SimDisk *the_disk = nullptr;

constexpr int sector_bytes = 4096;
constexpr const char *vfs_name = "keel-sim-disk";

} // namespace

/* SQLite's calls of a disk. There is one process and one connection, so locks are granted to everybody. */
struct SimDiskCalls {
    struct Handle {
        sqlite3_file base;
        std::shared_ptr<SimDisk::File> file;
        unsigned plugged;
    };

    static SimDisk::File &file_of(sqlite3_file *handle) { return *reinterpret_cast<Handle *>(handle)->file; }

    static bool is_dead(sqlite3_file *handle) {
        return reinterpret_cast<Handle *>(handle)->plugged != the_disk->plugged_;
    }

    static int close(sqlite3_file *handle) {
        reinterpret_cast<Handle *>(handle)->~Handle();
        return SQLITE_OK;
    }

    static int read(sqlite3_file *handle, void *target, int size, sqlite3_int64 offset) {
        if (is_dead(handle))
            return SQLITE_IOERR_READ;
        const SimDisk::Content &content = file_of(handle).content;
        const auto from = std::min(static_cast<std::size_t>(offset), content.size());
        const auto length = std::min(static_cast<std::size_t>(size), content.size() - from);
        std::copy_n(content.begin() + static_cast<std::ptrdiff_t>(from), length, static_cast<std::uint8_t *>(target));
        if (length == static_cast<std::size_t>(size))
            return SQLITE_OK;
        std::memset(static_cast<std::uint8_t *>(target) + length, 0, static_cast<std::size_t>(size) - length);
        return SQLITE_IOERR_SHORT_READ;
    }

    static int write(sqlite3_file *handle, const void *source, int size, sqlite3_int64 offset) {
        SimDisk &disk = *the_disk;
        if (is_dead(handle))
            return SQLITE_IOERR_WRITE;
        const bool fails = disk.failing_write > 0 && --disk.failing_write == 0;
        if (fails || disk.full) {
            ++disk.refused;
            return fails ? SQLITE_IOERR_WRITE : SQLITE_FULL;
        }
        SimDisk::Content &content = file_of(handle).content;
        const auto from = static_cast<std::size_t>(offset);
        if (content.size() < from + static_cast<std::size_t>(size))
            content.resize(from + static_cast<std::size_t>(size));
        std::copy_n(static_cast<const std::uint8_t *>(source), size,
                    content.begin() + static_cast<std::ptrdiff_t>(from));
        return SQLITE_OK;
    }

    static int truncate(sqlite3_file *handle, sqlite3_int64 size) {
        if (is_dead(handle))
            return SQLITE_IOERR_TRUNCATE;
        file_of(handle).content.resize(static_cast<std::size_t>(size));
        return SQLITE_OK;
    }

    static int size(sqlite3_file *handle, sqlite3_int64 *result) {
        if (is_dead(handle))
            return SQLITE_IOERR_FSTAT;
        *result = static_cast<sqlite3_int64>(file_of(handle).content.size());
        return SQLITE_OK;
    }

    static int sync(sqlite3_file *, int) { return SQLITE_OK; }
    static int lock(sqlite3_file *, int) { return SQLITE_OK; }
    static int reserved(sqlite3_file *, int *result) {
        *result = 0;
        return SQLITE_OK;
    }
    static int control(sqlite3_file *handle, int question, void *answer) {
        if (question != SQLITE_FCNTL_HAS_MOVED)
            return SQLITE_NOTFOUND;
        const SimDisk::File &file = file_of(handle);
        *static_cast<int *>(answer) = std::none_of(the_disk->files_.begin(), the_disk->files_.end(),
                                                   [&](const auto &one) { return one.second.get() == &file; });
        return SQLITE_OK;
    }
    static int sector(sqlite3_file *) { return sector_bytes; }
    static int traits(sqlite3_file *) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; }

    static int share(sqlite3_file *handle, int region, int size, int extend, void volatile **result) {
        auto &shared = file_of(handle).shared;
        const auto index = static_cast<std::size_t>(region);
        *result = nullptr;
        if (index >= shared.size() && !extend)
            return SQLITE_OK;
        while (shared.size() <= index)
            shared.push_back(std::make_unique<SimDisk::Content>(static_cast<std::size_t>(size)));
        *result = shared[index]->data();
        return SQLITE_OK;
    }
    static int share_lock(sqlite3_file *, int, int, int) { return SQLITE_OK; }
    static void share_barrier(sqlite3_file *) {}
    static int share_end(sqlite3_file *handle, int remove) {
        if (remove)
            file_of(handle).shared.clear();
        return SQLITE_OK;
    }

    static int open(sqlite3_vfs *, const char *name, sqlite3_file *handle, int flags, int *flags_out) {
        static const sqlite3_io_methods methods = {
            2,       close,  read,   write, truncate,   sync,          size,      lock,    lock,   reserved,
            control, sector, traits, share, share_lock, share_barrier, share_end, nullptr, nullptr};
        std::shared_ptr<SimDisk::File> file;
        if (!name) {
            file = std::make_shared<SimDisk::File>(); /* a temporary one */
        } else if (const auto found = the_disk->files_.find(name); found != the_disk->files_.end()) {
            file = found->second;
        } else if (flags & SQLITE_OPEN_CREATE) {
            file = the_disk->files_[name] = std::make_shared<SimDisk::File>();
        } else {
            handle->pMethods = nullptr;
            return SQLITE_CANTOPEN;
        }
        new (handle) Handle{{&methods}, std::move(file), the_disk->plugged_};
        if (flags_out)
            *flags_out = flags;
        return SQLITE_OK;
    }

    static int remove(sqlite3_vfs *, const char *name, int) {
        the_disk->files_.erase(name);
        return SQLITE_OK;
    }

    static int exists(sqlite3_vfs *, const char *name, int, int *result) {
        *result = the_disk->files_.contains(name);
        return SQLITE_OK;
    }

    static int full_name(sqlite3_vfs *, const char *name, int size, char *target) {
        sqlite3_snprintf(size, target, "%s", name);
        return SQLITE_OK;
    }

    static int random(sqlite3_vfs *, int size, char *target) {
        for (int i = 0; i < size; ++i) {
            the_disk->random_ = the_disk->random_ * 6364136223846793005U + 1442695040888963407U;
            target[i] = static_cast<char>(the_disk->random_ >> 56);
        }
        return size;
    }

    static int sleep(sqlite3_vfs *, int microseconds) { return microseconds; }
    static int time(sqlite3_vfs *, double *result) {
        *result = 2460000.5;
        return SQLITE_OK;
    }
    static int last_error(sqlite3_vfs *, int, char *) { return 0; }

    static sqlite3_vfs *vfs() {
        static sqlite3_vfs one = [] {
            sqlite3_vfs fresh{};
            fresh.iVersion = 1;
            fresh.szOsFile = sizeof(Handle);
            fresh.mxPathname = 512;
            fresh.zName = vfs_name;
            fresh.xOpen = open;
            fresh.xDelete = remove;
            fresh.xAccess = exists;
            fresh.xFullPathname = full_name;
            fresh.xRandomness = random;
            fresh.xSleep = sleep;
            fresh.xCurrentTime = time;
            fresh.xGetLastError = last_error;
            return fresh;
        }();
        return &one;
    }
};

SimDisk::SimDisk() {
    if (the_disk)
        throw std::logic_error("there is a simulated disk already");
    the_disk = this;
    sqlite3_vfs_register(SimDiskCalls::vfs(), 1);
}

SimDisk::~SimDisk() {
    sqlite3_vfs_unregister(SimDiskCalls::vfs());
    the_disk = nullptr;
}

void SimDisk::cut() {
    saved_.clear();
    for (const auto &[name, file] : files_)
        saved_[name] = file->content;
}

void SimDisk::come_back() {
    files_.clear();
    for (auto &[name, content] : saved_) {
        files_[name] = std::make_shared<File>();
        files_[name]->content = std::move(content);
    }
    saved_.clear();
}

} // namespace keel

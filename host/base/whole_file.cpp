#include "host/base/whole_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace keel {

namespace {

bool write_all(int file, const std::string &content) {
    std::size_t written = 0;
    while (written < content.size()) {
        const ssize_t size = write(file, content.data() + written, content.size() - written);
        if (size < 0 && errno != EINTR)
            return false;
        if (size > 0)
            written += static_cast<std::size_t>(size);
    }
    return true;
}

} // namespace

bool write_whole_file(const std::string &path, const std::string &content, std::string *error) {
    const std::string fresh = path + ".new";
    const auto failed = [&](const std::string &name) {
        *error = name + ": " + std::strerror(errno);
        return false;
    };
    if (unlink(fresh.c_str()) != 0 && errno != ENOENT) /* left by a host that was killed while it wrote */
        return failed(fresh);
    const int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (file < 0)
        return failed(fresh);
    const bool whole = write_all(file, content);
    const int write_error = errno;
    if (close(file) == 0 && whole && rename(fresh.c_str(), path.c_str()) == 0)
        return true;
    if (!whole)
        errno = write_error;
    failed(path);
    unlink(fresh.c_str());
    return false;
}

} // namespace keel

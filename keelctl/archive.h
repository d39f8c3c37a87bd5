/*
 * A compressed archive of texts, as tar and gzip have them.
 */
#ifndef KEELCTL_ARCHIVE_H
#define KEELCTL_ARCHIVE_H

#include <cstdint>
#include <string>
#include <vector>

namespace keelctl {

struct ArchivedText {
    std::string name; /* with its folder, at most 99 characters */
    std::string text;
};

/* Writes a new file, for its owner alone; one of that name is replaced. Throws std::runtime_error when it cannot be
 * written whole. The time is in seconds since 1970. */
void write_archive(const std::string &file, const std::vector<ArchivedText> &texts, std::int64_t time);

} // namespace keelctl

#endif

#include "keelctl/archive.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace keelctl {

namespace {

constexpr std::size_t block = 512;

/* The header of a file in the archive: fields of text and octal numbers at fixed places. */
std::string header_of(const ArchivedText &one, std::int64_t time) {
    std::string header(block, '\0');
    const auto put = [&](std::size_t at, const std::string &field) { header.replace(at, field.size(), field); };
    const auto octal = [](unsigned long long number, int digits) {
        char field[24];
        std::snprintf(field, sizeof field, "%0*llo", digits, number);
        return std::string(field);
    };
    put(0, one.name.substr(0, 99));
    put(100, octal(0600, 7));
    put(108, octal(0, 7));
    put(116, octal(0, 7));
    put(124, octal(one.text.size(), 11));
    put(136, octal(static_cast<unsigned long long>(time), 11));
    put(148, std::string(8, ' ')); /* the sum counts its own place as blanks */
    put(156, "0");
    put(257, std::string("ustar\0", 6) + "00");
    put(265, "root");
    put(297, "root");
    unsigned sum = 0;
    for (const char c : header)
        sum += static_cast<unsigned char>(c);
    put(148, octal(sum, 6) + std::string("\0 ", 2));
    return header;
}

} // namespace

void write_archive(const std::string &file, const std::vector<ArchivedText> &texts, std::int64_t time) {
    std::string archive;
    for (const ArchivedText &one : texts) {
        archive += header_of(one, time) + one.text;
        archive.resize((archive.size() + block - 1) / block * block, '\0');
    }
    archive.resize(archive.size() + 2 * block, '\0'); /* its end */

    unlink(file.c_str()); /* so that the new file's mode is its own */
    const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    gzFile out = descriptor < 0 ? nullptr : gzdopen(descriptor, "wb");
    if (!out)
        throw std::runtime_error(file + " cannot be written: " + std::strerror(errno));
    bool whole = true;
    constexpr std::size_t portion = 1 << 20;
    for (std::size_t at = 0; at < archive.size() && whole; at += portion) {
        const auto size = static_cast<unsigned>(std::min(portion, archive.size() - at));
        whole = gzwrite(out, archive.data() + at, size) == static_cast<int>(size);
    }
    if (gzclose(out) != Z_OK || !whole) {
        const std::string reason = std::strerror(errno);
        unlink(file.c_str());
        throw std::runtime_error(file + " cannot be written whole: " + reason);
    }
}

} // namespace keelctl

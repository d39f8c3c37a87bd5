#include "keelctl/carry.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include "host/base/whole_file.h"

namespace keelctl {

namespace {

constexpr std::size_t longest_file = std::size_t{1}
                                     << 19; /* bytes: what the host takes at once, and more than any box has */

constexpr std::chrono::seconds import_patience{120}; /* a whole box is written */

std::string read_whole(std::istream &in) {
    return {std::istreambuf_iterator<char>(in), {}};
}

} // namespace

void export_to(Client &client, const std::string &file) {
    const std::string text = client.ask({{"op", "export"}})["text"];
    if (file == "-") {
        std::fputs(text.c_str(), stdout);
        if (std::fflush(stdout) != 0)
            throw Refused(std::string("standard output cannot be written: ") + std::strerror(errno));
        return;
    }
    std::string error;
    if (!keel::write_whole_file(file, text, &error))
        throw Refused(file + " cannot be written: " + error);
}

std::vector<std::string> import_from(Client &client, const std::string &file) {
    std::string text;
    if (file == "-") {
        text = read_whole(std::cin);
    } else {
        std::ifstream in(file, std::ios::binary);
        text = read_whole(in);
        if (!in.is_open() || in.bad())
            throw Refused(file + " cannot be read: " + std::strerror(errno));
    }
    if (text.size() > longest_file)
        throw Refused(file + " is larger than 512 KiB: it is no file of keelctl export");
    client.set_patience(import_patience);
    client.send({{"op", "import"}, {"text", text}});
    const auto answer = client.next();
    if (!answer)
        throw Unreachable("the host went while it imported " + file + ": look at keelctl once it is there again");
    if (answer->value("ok", false))
        return answer->value("told", std::vector<std::string>());
    std::string wrong;
    for (const std::string &error : answer->value("errors", std::vector<std::string>()))
        wrong += file + ": " + error + "\n";
    throw Refused(wrong + answer->value("error", "refused"));
}

} // namespace keelctl

#include "tests/simulate/image.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace keel {

namespace {

template <typename Record>
std::vector<Record> records(const std::vector<char> &file, std::size_t at, std::size_t count) {
    std::vector<Record> all(count);
    if (at + count * sizeof(Record) > file.size())
        throw std::runtime_error("the plug-in's file is cut off");
    std::memcpy(all.data(), file.data() + at, count * sizeof(Record));
    return all;
}

/* A symbol that is not exported is in the file alone. */
std::size_t offset_of(const std::string &plugin, const std::string &symbol) {
    std::ifstream stream(plugin, std::ios::binary);
    const std::vector<char> file((std::istreambuf_iterator<char>(stream)), {});
    const auto header = records<ElfW(Ehdr)>(file, 0, 1).front();
    const auto sections = records<ElfW(Shdr)>(file, header.e_shoff, header.e_shnum);
    for (const auto &section : sections) {
        if (section.sh_type != SHT_SYMTAB)
            continue;
        const char *names = file.data() + sections.at(section.sh_link).sh_offset;
        for (const auto &one : records<ElfW(Sym)>(file, section.sh_offset, section.sh_size / sizeof(ElfW(Sym))))
            if (symbol == names + one.st_name)
                return one.st_value;
    }
    throw std::runtime_error("the plug-in has no symbol " + symbol + "; was it stripped?");
}

} // namespace

bool is_loaded(const std::string &plugin) {
    void *library = dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (library)
        dlclose(library);
    return library != nullptr;
}

const RoutedState &routed_state_of(const std::string &plugin) {
    constexpr const char *exported = "cur_intf"; /* from where the other one is found */
    static const auto distance = static_cast<std::ptrdiff_t>(offset_of(plugin, "routed_state")) -
                                 static_cast<std::ptrdiff_t>(offset_of(plugin, exported));
    void *library = dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (!library)
        throw std::runtime_error("the plug-in is not loaded");
    const auto *known = static_cast<const char *>(dlsym(library, exported));
    dlclose(library); /* it stays loaded by its first opening */
    return *reinterpret_cast<const RoutedState *>(known + distance);
}

} // namespace keel

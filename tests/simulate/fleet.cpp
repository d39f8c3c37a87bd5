#include "tests/simulate/fleet.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "tests/simulate/world.h"

namespace keel {

namespace {

constexpr std::size_t seconds = 1800;
constexpr std::size_t bin_s = 10;
constexpr std::uint64_t boot_ms = 40000; /* of a gateway, and by how much they differ */
constexpr std::uint64_t boots_differ_ms = 3000;
constexpr std::uint64_t server_back_ms = 300000; /* what is between takes longer to come up than a gateway */
constexpr std::uint64_t stb_boot_ms = 30000;     /* and up to twice as long */

using Counts = std::array<unsigned, seconds>; /* messages in each second since the power came back */

enum class Pauses { AsTheyAre, Spread };

Counts counts_of(unsigned number, Pauses pauses, const std::string &plugin, const std::string &model_file) {
    Counts counts{};
    Chance chance(number);
    const std::uint64_t booted_ms = boot_ms + chance.below(boots_differ_ms);
    World world(number, plugin, model_file);
    world.on_wan_message = [&] {
        const std::uint64_t second = (booted_ms + world.now_ms()) / 1000;
        if (second < seconds)
            ++counts.at(second);
    };
    world.vary_wan_pause = [&](std::uint64_t pause_ms) {
        if (pauses == Pauses::AsTheyAre)
            return pause_ms == 0 ? 0 : pause_ms - 1000 + chance.below(2001);
        return pause_ms == 0 ? chance.below(10000) : pause_ms / 2 + chance.below(pause_ms + 1);
    };
    Plan plan{{0, Deed::Away, 0, 0}};
    for (std::uint64_t stb = 0; stb < 4; ++stb)
        plan.push_back({chance.below(stb_boot_ms), Deed::SwitchOn, stb, 0});
    std::sort(plan.begin(), plan.end(), [](const Step &one, const Step &other) { return one.at_ms < other.at_ms; });
    plan.push_back({server_back_ms - booted_ms, Deed::Back, 0, 0});
    plan.push_back({seconds * 1000, Deed::Quick, 0, 0});
    world.run(plan);
    return counts;
}

/* In a process of its own, as every run. */
void add_counts(Counts &all, unsigned number, Pauses pauses, const std::string &plugin, const std::string &model_file) {
    int ends[2];
    if (pipe(ends) != 0)
        throw std::runtime_error("no pipe");
    const pid_t process = fork();
    if (process == 0) {
        Counts counts{};
        try {
            counts = counts_of(number, pauses, plugin, model_file);
        } catch (const std::exception &broken) {
            std::fprintf(stderr, "gateway %u: %s\n", number, broken.what());
            _exit(1);
        }
        const bool written = write(ends[1], counts.data(), sizeof counts) == static_cast<ssize_t>(sizeof counts);
        _exit(written ? 0 : 1); /* less than a pipe holds */
    }
    close(ends[1]);
    Counts counts{};
    std::size_t got = 0;
    for (ssize_t size = 1; got < sizeof counts && size > 0; got += static_cast<std::size_t>(std::max<ssize_t>(size, 0)))
        size = read(ends[0], reinterpret_cast<char *>(counts.data()) + got, sizeof counts - got);
    close(ends[0]);
    int status = 0;
    waitpid(process, &status, 0);
    if (status != 0 || got != sizeof counts)
        throw std::runtime_error("gateway " + std::to_string(number) + " has not run to its end");
    for (std::size_t second = 0; second < seconds; ++second)
        all.at(second) += counts.at(second);
}

std::string summary(const char *name, const Counts &counts) {
    const auto peak = std::max_element(counts.begin(), counts.end());
    unsigned total = 0;
    for (const unsigned one : counts)
        total += one;
    char line[160];
    std::snprintf(line, sizeof line, "%-12s %6u messages, at most %u in a second, %td s after the power came back\n",
                  name, total, *peak, peak - counts.begin());
    return line;
}

} // namespace

std::string fleet_report(unsigned gateways, const std::string &plugin, const std::string &model_file) {
    std::array<Counts, 2> counts{};
    for (unsigned number = 1; number <= gateways; ++number)
        for (const Pauses pauses : {Pauses::AsTheyAre, Pauses::Spread})
            add_counts(counts.at(static_cast<std::size_t>(pauses)), number, pauses, plugin, model_file);
    std::string report = std::to_string(gateways) + " gateways of four STBs; the server answers after " +
                         std::to_string(server_back_ms / 1000) + " s\n" + summary("as they are", counts[0]) +
                         summary("spread", counts[1]) + "\n   from s  most a second: as they are   spread\n";
    for (std::size_t from = 0; from < seconds; from += bin_s) {
        std::array<unsigned, 2> most{};
        for (std::size_t which = 0; which < 2; ++which)
            most.at(which) = *std::max_element(counts.at(which).begin() + static_cast<std::ptrdiff_t>(from),
                                               counts.at(which).begin() + static_cast<std::ptrdiff_t>(from + bin_s));
        if (most[0] == 0 && most[1] == 0)
            continue;
        char line[80];
        std::snprintf(line, sizeof line, "%9zu  %28u %8u\n", from, most[0], most[1]);
        report += line;
    }
    return report;
}

} // namespace keel

/*
 * simulate --seed N | --seeds N | --file RUNS [--days D] [--faults LIST] [--jobs J] [--shrink]
 *
 * simulate --fleet GATEWAYS
 *
 * A file has a line "seed N", or "seed N days D", for each run, below it the run's steps as --shrink prints them,
 * unless they are drawn from the seed, and comments that begin with "#". A folder stands for the files in it.
 *
 * Each run has a process of its own: the plug-in's state is that of a process. Leaves 1 when an invariant was broken.
 */
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>

#include "tests/simulate/fleet.h"
#include "tests/simulate/world.h"

namespace keel {

namespace {

constexpr const char *model_file = SOURCE_DIR "/share/gateway.json";
constexpr double day_ms = 86400000;
constexpr std::size_t progress_every = 500;

struct Case {
    std::uint64_t seed = 0;
    unsigned days = 0; /* 0: as the options say */
    Plan plan;         /* empty: it is drawn from the seed */
};

struct Options {
    std::vector<Case> cases;
    unsigned days = 30;
    unsigned jobs = 2;
    bool shrink = false;
    bool quiet = false;
    unsigned fleet = 0;
    bool first = false; /* no more seeds once one has failed */
    std::vector<std::string> faults = fault_groups();
};

struct Result {
    bool failed = false;
    std::string invariant; /* its words up to the colon */
    std::string report;
    std::size_t step = 0;
};

/* With its plan. */
Case drawn(const Options &options, Case one) {
    if (one.days == 0)
        one.days = options.days;
    if (one.plan.empty())
        one.plan = draw_plan(one.seed, one.days, options.faults);
    return one;
}

Result play(const Case &one, bool with_table) {
    const auto &[seed, days, plan] = one;
    Result result;
    World world(seed, PLUGIN_FILE, model_file);
    std::ostringstream report;
    try {
        world.run(plan);
        char digest[32];
        std::snprintf(digest, sizeof digest, "%016llx", static_cast<unsigned long long>(world.table().digest()));
        report << "seed " << seed << ": " << days << " days, " << plan.size() << " steps, " << world.table().events()
               << " events, digest " << digest << "\n";
    } catch (const std::exception &broken) {
        result.failed = true;
        result.invariant = std::string(broken.what()).substr(0, std::string(broken.what()).find(':'));
        result.step = world.step();
        report << "seed " << seed << ", step " << world.step() << " of " << plan.size() << ": " << broken.what()
               << "\n";
        if (with_table)
            report << world.table().text();
    }
    result.report = report.str();
    return result;
}

/* In a process of its own, which may as well crash. */
class Run {
public:
    Run(const Case &one, bool with_table) : seed_(one.seed) {
        int ends[2];
        if (pipe(ends) != 0)
            throw std::runtime_error("no pipe");
        std::fflush(stdout);
        process_ = fork();
        if (process_ == 0) {
            close(ends[0]);
            const Result result = play(one, with_table);
            const std::string text = std::to_string(result.failed) + "\n" + std::to_string(result.step) + "\n" +
                                     result.invariant + "\n" + result.report;
            std::size_t at = 0;
            while (at < text.size()) {
                const ssize_t written = write(ends[1], text.data() + at, text.size() - at);
                if (written <= 0)
                    break;
                at += static_cast<std::size_t>(written);
            }
            _exit(0); /* what a run has left is looked for by itself, not by the end of the process */
        }
        close(ends[1]);
        from_ = ends[0];
    }

    Result wait() const {
        std::string text;
        char buffer[4096];
        for (ssize_t size = 0; (size = read(from_, buffer, sizeof buffer)) > 0;)
            text.append(buffer, static_cast<std::size_t>(size));
        close(from_);
        int status = 0;
        waitpid(process_, &status, 0);
        Result result;
        if (status != 0 || text.empty()) {
            result.failed = true;
            result.invariant = "the process ends by itself";
            result.report = "seed " + std::to_string(seed_) + ": the process ended with status " +
                            std::to_string(status) + "\n" + text;
            return result;
        }
        std::istringstream lines(text);
        std::string line;
        std::getline(lines, line);
        result.failed = line == "1";
        std::getline(lines, line);
        result.step = std::strtoull(line.c_str(), nullptr, 10);
        std::getline(lines, result.invariant);
        result.report.assign(std::istreambuf_iterator<char>(lines), {});
        return result;
    }

private:
    std::uint64_t seed_;
    pid_t process_;
    int from_;
};

/* Without what is not needed for the same invariant to break: ever smaller pieces are left out. */
Case shrink(Case one, const Result &first) {
    one.plan.resize(std::min(one.plan.size(), first.step + 1));
    for (std::size_t piece = std::max<std::size_t>(one.plan.size() / 2, 1); piece > 0; piece /= 2)
        for (std::size_t at = 0; at < one.plan.size();) {
            Case shorter = one;
            const auto from = shorter.plan.begin() + static_cast<std::ptrdiff_t>(at);
            shorter.plan.erase(from, from + static_cast<std::ptrdiff_t>(std::min(piece, one.plan.size() - at)));
            const Result result = Run(shorter, false).wait();
            if (result.failed && result.invariant == first.invariant)
                one = shorter;
            else
                at += piece;
        }
    return one;
}

std::vector<std::string> parts(const std::string &list) {
    std::vector<std::string> all;
    std::istringstream words(list);
    for (std::string word; std::getline(words, word, ',');)
        all.push_back(word);
    return all;
}

void read_cases(const std::filesystem::path &file, std::vector<Case> *cases) {
    if (std::filesystem::is_directory(file)) {
        std::set<std::filesystem::path> files;
        for (const auto &entry : std::filesystem::directory_iterator(file))
            files.insert(entry.path());
        for (const auto &one : files)
            read_cases(one, cases);
        return;
    }
    std::ifstream lines(file);
    if (!lines)
        throw std::runtime_error(file.string() + " cannot be read");
    for (std::string line; std::getline(lines, line);) {
        unsigned long long seed = 0;
        Case one;
        if (line.empty() || line[0] == '#')
            continue;
        if (std::sscanf(line.c_str(), "seed %llu days %u", &seed, &one.days) >= 1) {
            one.seed = seed;
            cases->push_back(one);
        } else if (!cases->empty()) {
            cases->back().plan.push_back(to_step(line));
        } else {
            throw std::runtime_error(file.string() + ": no seed before " + line);
        }
    }
}

Options parse(int count, char **arguments) {
    Options options;
    for (int i = 1; i < count; ++i) {
        const std::string name = arguments[i];
        if (name == "--shrink") {
            options.shrink = true;
            continue;
        }
        if (name == "--first") {
            options.first = true;
            continue;
        }
        if (name == "--quiet") {
            options.quiet = true;
            continue;
        }
        const char *value = i + 1 < count ? arguments[++i] : "";
        const auto number = std::strtoull(value, nullptr, 10);
        if (name == "--seed")
            options.cases.push_back({number, 0, {}});
        else if (name == "--seeds")
            for (std::uint64_t seed = 1; seed <= number; ++seed)
                options.cases.push_back({seed, 0, {}});
        else if (name == "--file")
            read_cases(value, &options.cases);
        else if (name == "--days")
            options.days = static_cast<unsigned>(number);
        else if (name == "--jobs")
            options.jobs = std::max(1U, static_cast<unsigned>(number));
        else if (name == "--fleet")
            options.fleet = static_cast<unsigned>(number);
        else if (name == "--faults")
            options.faults = parts(value);
        else
            throw std::runtime_error("unknown option " + name);
    }
    for (const std::string &group : options.faults)
        if (group != "none" && std::find(fault_groups().begin(), fault_groups().end(), group) == fault_groups().end())
            throw std::runtime_error("unknown faults \"" + group +
                                     "\"; there are people, operator, line, ground, kill, clock and none");
    if (options.cases.empty() && options.fleet == 0)
        throw std::runtime_error("--seed N, --seeds N, --file RUNS or --fleet GATEWAYS is needed");
    return options;
}

/* How fast the runs that have ended went, as a line. */
std::string rate(double days) {
    rusage used{};
    getrusage(RUSAGE_CHILDREN, &used);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    const double took = seconds(used.ru_utime) + seconds(used.ru_stime);
    char text[120];
    std::snprintf(text, sizeof text, "%.1f gateway-years in %.0f s of a processor: %.1f a minute\n", days / 365, took,
                  took > 0 ? days / 365 * 60 / took : 0);
    return text;
}

int simulate(const Options &options) {
    if (options.fleet != 0) {
        std::cout << fleet_report(options.fleet, PLUGIN_FILE, model_file);
        return 0;
    }
    const bool one = options.cases.size() == 1;
    std::vector<std::uint64_t> failed;
    std::deque<Run> running;
    const auto finish = [&] {
        Result result = running.front().wait();
        running.pop_front();
        if (result.failed || (one && !options.quiet))
            std::cout << result.report << std::flush;
        return result;
    };
    Result last;
    std::deque<std::uint64_t> started;
    std::size_t ended = 0;
    double days = 0;
    const auto take = [&] {
        last = finish();
        if (last.failed)
            failed.push_back(started.front());
        started.pop_front();
        if (++ended % progress_every == 0)
            std::cerr << ended << " of " << options.cases.size() << " runs, " << failed.size() << " failed\n";
    };
    for (const Case &next : options.cases) {
        if (running.size() >= options.jobs)
            take();
        if (options.first && !failed.empty())
            break;
        Case whole = drawn(options, next);
        days += static_cast<double>(whole.plan.back().at_ms) / day_ms;
        running.emplace_back(std::move(whole), true);
        started.push_back(next.seed);
    }
    while (!running.empty())
        take();
    std::cout << options.cases.size() << " runs, " << failed.size() << " failed";
    for (const std::uint64_t seed : failed)
        std::cout << " " << seed;
    std::cout << "\n" << rate(days);
    if (options.shrink && one && last.failed) {
        const Case shortest = shrink(drawn(options, options.cases[0]), last);
        std::cout << "\nthe shortest run that still fails:\nseed " << shortest.seed << "\n";
        for (const Step &step : shortest.plan)
            std::cout << to_text(step) << "\n";
        std::cout << Run(shortest, true).wait().report;
    }
    return failed.empty() ? 0 : 1;
}

} // namespace

} // namespace keel

int main(int count, char **arguments) {
    try {
        return keel::simulate(keel::parse(count, arguments));
    } catch (const std::exception &error) {
        std::cerr << "simulate: " << error.what() << "\n";
        return 2;
    }
}

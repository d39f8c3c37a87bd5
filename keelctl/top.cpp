#include "keelctl/top.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "keelctl/interruption.h"
#include "keelctl/status.h"
#include "keelctl/stbs.h"
#include "keelctl/tree.h"

namespace keelctl {

namespace {

constexpr int refresh_ms = 1000;
constexpr std::size_t usual_columns = 80;
constexpr std::size_t usual_rows = 24;
constexpr std::size_t name_width = 17; /* of a MAC address */
constexpr std::size_t state_width = 8;
constexpr std::size_t address_width = 15;

/* Lines with parts in colours, cut at the right edge. */
class Screen {
public:
    Screen(std::size_t columns, std::size_t rows, bool colours) : columns_(columns), rows_(rows), colours_(colours) {}

    void add(const std::string &text, const char *colour = "") {
        line_ += shaded(text.substr(0, columns_ - std::min(columns_, used_)), colour);
        used_ += text.size();
    }

    void end_line() {
        lines_.push_back(line_);
        line_.clear();
        used_ = 0;
    }

    void line(const std::string &text, const char *colour = "") {
        add(text, colour);
        end_line();
    }

    std::vector<std::string> lines() {
        if (lines_.size() > rows_) {
            const std::size_t left = lines_.size() - rows_ + 1;
            lines_.resize(rows_);
            lines_.back() = "... and " + std::to_string(left) + " lines more";
        }
        return std::move(lines_);
    }

private:
    std::string shaded(const std::string &text, const char *colour) const {
        return colours_ && *colour && !text.empty() ? std::string("\033[") + colour + "m" + text + "\033[0m" : text;
    }

    std::size_t columns_;
    std::size_t rows_;
    bool colours_;
    std::string line_;
    std::size_t used_ = 0;
    std::vector<std::string> lines_;
};

void add_stbs(Screen &screen, const Json &status) {
    screen.line(pad("STB", name_width) + " " + pad("state", state_width) + " " + pad("LAN address", address_width) +
                    " WAN address",
                "2");
    for (const Json &stb : status["stbs"]) {
        screen.add(pad(stb["name"].get<std::string>().substr(0, name_width), name_width) + " ");
        screen.add(pad(stb["state"], state_width), state_colour(stb["state"]));
        screen.add(" " + pad(or_none(stb["address"]), address_width) + " " +
                   pad(or_none(stb.value("wan_address", "")), address_width));
        screen.add(" " + stb["packets_out"].dump() + " out " + stb["packets_in"].dump() + " in");
        screen.end_line();
        if (stb.contains("brief"))
            screen.line("  " + stb["brief"].get<std::string>(), state_colour(stb["state"]));
    }
}

/* Cursor, screen and keys of a terminal, for as long as it is watched. */
class Terminal {
public:
    Terminal() {
        tcgetattr(STDIN_FILENO, &before_);
        termios quiet = before_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
        std::signal(SIGTSTP, SIG_IGN); /* a shell's prompt on this screen would be a mess */
        std::printf("\033[?1049h\033[?25l");
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;
    ~Terminal() {
        std::printf("\033[?25h\033[?1049l");
        std::fflush(stdout);
        tcsetattr(STDIN_FILENO, TCSANOW, &before_);
        std::signal(SIGTSTP, SIG_DFL);
    }

private:
    termios before_{};
};

std::size_t number_in(const char *variable, std::size_t fallback) {
    const char *value = std::getenv(variable);
    const unsigned long number = value ? std::strtoul(value, nullptr, 10) : 0;
    return number > 0 ? number : fallback;
}

std::vector<std::string> look(Client &client, std::size_t columns, std::size_t rows, bool colours) {
    try {
        client.forget_trees();
        client.look();
        return screen_of(gather_status(client), columns, rows, colours);
    } catch (const Unreachable &failure) {
        Screen screen(columns, rows, colours);
        screen.line(failure.what(), "31");
        screen.line("it is tried again", "");
        return screen.lines();
    }
}

} // namespace

std::vector<std::string> screen_of(const Json &status, std::size_t columns, std::size_t rows, bool colours) {
    Screen screen(columns, rows, colours);
    screen.add("IPTV", "1");
    screen.line("  " + or_none(status["device"]) + ", " + mode_line(status));
    screen.line(status["headline"], is_well(status) ? "32" : "31");
    if (!status["rules_error"].get<std::string>().empty())
        screen.line("whether the rules stand is not known: " + status["rules_error"].get<std::string>(), "31");
    if (!status["store_error"].get<std::string>().empty())
        screen.line("nothing is stored: " + status["store_error"].get<std::string>(), "31");
    screen.line("");
    add_stbs(screen, status);
    screen.line("");
    for (const Json &route : status["routes"])
        screen.line("route    " + pad(route["destination"], 18) + " via " + pad(route["router"], address_width) + " " +
                        (route["status"] == "Enabled" ? "in force" : route["status"].get<std::string>()),
                    route["status"] == "Enabled" ? "" : "31");
    for (const auto &[name, state] : status["modules"].items())
        screen.line(pad(name, state_width) + " " + state.get<std::string>());
    return screen.lines();
}

void show_live(Client &client) {
    const Interruption interruption;
    client.look(); /* a host that was never there is an error; one that goes is waited for */
    if (!isatty(STDOUT_FILENO)) {
        std::vector<std::string> shown;
        for (; !Interruption::wanted(); poll(nullptr, 0, refresh_ms)) {
            auto lines = look(client, number_in("COLUMNS", usual_columns), number_in("LINES", usual_rows), false);
            if (lines == shown)
                continue;
            shown = std::move(lines);
            for (const std::string &line : shown)
                std::printf("%s\n", line.c_str());
            std::printf("\n");
            std::fflush(stdout);
        }
        return;
    }
    const Terminal terminal;
    struct sigaction wake {}; /* a changed size cuts the wait short */
    wake.sa_handler = [](int) {};
    sigaction(SIGWINCH, &wake, nullptr);
    while (!Interruption::wanted()) {
        winsize size{};
        ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
        const auto lines = look(client, size.ws_col ? size.ws_col : usual_columns,
                                size.ws_row ? size.ws_row : usual_rows, colours_wanted());
        std::string screen = "\033[H";
        for (std::size_t i = 0; i < lines.size(); ++i)
            screen += (i ? "\n" : "") + lines[i] + "\033[K";
        std::printf("%s\033[J", screen.c_str());
        std::fflush(stdout);
        pollfd key{STDIN_FILENO, POLLIN, 0};
        char typed = 0;
        if (poll(&key, 1, refresh_ms) == 1 && (read(STDIN_FILENO, &typed, 1) <= 0 || typed == 'q'))
            return;
    }
}

} // namespace keelctl

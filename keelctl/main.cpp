/*
 * keelctl: looks into a running keelhost and changes its data model.
 */
#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "keelctl/capture.h"
#include "keelctl/carry.h"
#include "keelctl/client.h"
#include "keelctl/diagnosis.h"
#include "keelctl/drawing.h"
#include "keelctl/evidence.h"
#include "keelctl/output.h"
#include "keelctl/status.h"
#include "keelctl/timeline.h"
#include "keelctl/top.h"

using namespace keelctl;

namespace {

enum ExitStatus { done = 0, refused = 1, unreachable = 2, broken = 3 };

constexpr auto replace_bad_bytes = Json::error_handler_t::replace;

struct Options {
    std::string socket = "/run/keel/keel.sock";
    bool script = false;
    std::string path;
    std::vector<std::string> words;
    bool follow = false;
    unsigned lines = 50;
    std::string file;
    bool full = false;
    std::string since;
    unsigned seconds = 0;
};

void print_json(const Json &json) {
    std::printf("%s\n", json.dump(-1, ' ', false, replace_bad_bytes).c_str());
    std::fflush(stdout);
}

/* NAME=VALUE words as the values of a message. */
Json values_of(const std::vector<std::string> &words) {
    Json values = Json::object();
    for (const std::string &word : words) {
        const auto equals = word.find('=');
        if (equals == std::string::npos || equals == 0)
            throw Refused("\"" + word + "\" is not of the form NAME=VALUE");
        values[word.substr(0, equals)] = word.substr(equals + 1);
    }
    return values;
}

/* What is written may have the plug-in run its commands, which wait for others'. */
constexpr std::chrono::seconds write_patience{60};

int status(Client &client, const Options &options) {
    client.look();
    const Json gathered = gather_status(client);
    if (options.script)
        print_json(gathered);
    else
        std::printf("%s", print_status(gathered, colours_wanted()).c_str());
    return done;
}

/* Of the named devices, or of all STBs on the LAN that are not served, or of which not all can be seen. */
int why(Client &client, const Options &options) {
    client.look();
    Gateway gateway(client, Gateway::Devices::All);
    std::vector<const Device *> asked;
    Device stranger;
    if (options.path.empty()) {
        for (const Device &device : gateway.devices)
            if (device.is_there() && (gateway.is_stb(device) || gateway.looks_like_stb(device)))
                asked.push_back(&device);
    } else {
        asked = gateway.asked(options.path, stranger);
    }
    std::size_t dark = 0;
    bool well = true;
    for (const Device *device : asked) {
        const Diagnosis diagnosis = diagnose(gateway, *device);
        dark += !diagnosis.served();
        if (options.path.empty() && diagnosis.served() && !diagnosis.unseen)
            continue;
        well = false;
        if (options.script)
            print_json(diagnosis_json(*device, diagnosis));
        else
            std::printf("%s", print_diagnosis(gateway, *device, diagnosis).c_str());
    }
    if (well && options.path.empty() && !options.script)
        std::printf("%s\n", asked.empty() ? "no STB is on the LAN: nothing that looks like one has asked for an address"
                                          : "all STBs on the LAN are served");
    return dark == 0 ? done : broken;
}

/* The object of a path. What "get" prints is a name that it takes: when there is no such object, the last step is a
 * parameter of the one above, and goes to *words. */
Json object_at(Client &client, std::string *path, std::vector<std::string> *words) {
    try {
        return client.ask({{"op", "get"}, {"path", *path}})["tree"];
    } catch (const Refused &) {
        const auto dot = path->rfind('.');
        const std::string parent = path->substr(0, dot == std::string::npos ? 0 : dot);
        const std::string name = path->substr(parent.empty() ? 0 : parent.size() + 1);
        Json tree = client.tree(parent);
        if (!words->empty() || !tree["parameters"].contains(name))
            throw;
        *path = parent;
        *words = {name};
        return tree;
    }
}

int get(Client &client, const Options &told) {
    Options options = told;
    const Json tree = object_at(client, &options.path, &options.words);
    if (options.words.empty()) {
        if (options.script)
            print_json(tree);
        else
            std::printf("%s", tree_text(tree, options.path).c_str());
        return done;
    }
    for (const std::string &name : options.words) {
        if (!tree["parameters"].contains(name))
            throw Refused(options.path + ": no parameter \"" + name + "\"");
        if (options.script)
            print_json({{name, tree["parameters"][name]}});
        else
            std::printf("%s\n", value_text(tree["parameters"][name]).c_str());
    }
    return done;
}

int set(Client &client, const Options &options) {
    client.set_patience(write_patience);
    client.ask({{"op", "set"}, {"path", options.path}, {"values", values_of(options.words)}});
    return done;
}

int add(Client &client, const Options &options) {
    std::vector<std::string> words = options.words;
    Json message{{"op", "add"}, {"path", options.path}};
    if (!words.empty() && words.front().find('=') == std::string::npos) {
        message["key"] = words.front();
        words.erase(words.begin());
    }
    message["values"] = values_of(words);
    client.set_patience(write_patience);
    const std::string name = client.ask(message)["name"];
    if (options.script)
        print_json({{"name", name}});
    else
        std::printf("%s.%s\n", options.path.c_str(), name.c_str());
    return done;
}

int del(Client &client, const Options &options) {
    client.set_patience(write_patience);
    client.ask({{"op", "del"}, {"path", options.path}});
    return done;
}

int watch(Client &client, const Options &options) {
    client.ask({{"op", "watch"}, {"path", options.path}});
    while (const auto event = client.next_event()) {
        if (options.script) {
            print_json(*event);
            continue;
        }
        std::printf("%s %s", (*event)["event"].get<std::string>().c_str(), (*event)["path"].get<std::string>().c_str());
        for (const auto &[name, value] : (*event)["values"].items())
            std::printf(" %s=%s", name.c_str(), value_text(value).c_str());
        std::printf("\n");
        std::fflush(stdout);
    }
    throw Unreachable(options.socket + ": the host has gone");
}

int trace(Client &client, const Options &options) {
    client.send({{"op", "trace"}, {"lines", options.lines}, {"follow", options.follow}});
    while (const auto line = options.follow ? client.next_event() : client.next()) {
        if (line->contains("ok")) {
            if (!options.follow)
                return done;
            continue;
        }
        if (options.script) {
            print_json(*line);
            continue;
        }
        std::printf("%s", trace_text(*line).c_str());
        std::fflush(stdout);
    }
    throw Unreachable(options.socket + ": the host has gone");
}

/* What was written. */
void tell_file(const Options &options, const std::string &file) {
    if (options.script)
        print_json({{"file", file}});
    else
        std::printf("%s\n", file.c_str());
}

int collect(Client &client, const Options &options) {
    const std::string file = options.file.empty() ? timed_name("diagnose", ".tgz") : options.file;
    const bool reached = collect_evidence(client, file, options.full);
    tell_file(options, file);
    if (!reached)
        throw Unreachable(options.socket + ": the host does not answer; " + file + " holds all the rest");
    return done;
}

int top(Client &client, const Options &) {
    show_live(client);
    return done;
}

int draw(Client &client, const Options &options) {
    const std::int64_t now_ms = std::int64_t{std::time(nullptr)} * 1000;
    const std::int64_t since_ms = options.since.empty() ? 0 : time_since(options.since, now_ms);
    if (options.script && options.file.empty()) {
        for (const Json &event : timeline_events(client))
            if (event["time_ms"] >= since_ms)
                print_json(event);
        return done;
    }
    const std::string file = options.file.empty() ? timed_name("timeline", ".html") : options.file;
    const TimelineStory story = gather_story(client, since_ms);
    std::ofstream out(file, std::ios::binary);
    out << (file.ends_with(".svg") ? draw_svg(story) : draw_page(story));
    out.close();
    if (!out)
        throw Refused(file + " cannot be written: " + std::strerror(errno));
    tell_file(options, file);
    return done;
}

int capture_stb(Client &client, const Options &options) {
    const std::string file = options.file.empty() ? timed_name("capture", ".pcapng") : options.file;
    capture(client, options.path, options.seconds, file);
    if (file != "-")
        tell_file(options, file);
    return done;
}

int carry_out(Client &client, const Options &options) {
    const std::string file = options.file.empty() ? timed_name("export", ".json") : options.file;
    export_to(client, file);
    if (file != "-")
        tell_file(options, file);
    return done;
}

int carry_in(Client &client, const Options &options) {
    for (const std::string &line : import_from(client, options.path)) {
        if (options.script)
            print_json({{"told", line}});
        else
            std::printf("%s\n", line.c_str());
    }
    return done;
}

/* A subcommand: its name, what it does, who does it, and what it takes. */
struct Command {
    const char *name;
    const char *help;
    int (*run)(Client &client, const Options &options);
    void (*take)(CLI::App &command, Options &options);
};

void take_nothing(CLI::App &, Options &) {}

/* What the words of the views mean. */
constexpr const char *glossary =
    R"(held       the LAN server keeps the STB's request, and answers once there is a WAN lease for it
stop-gap   a short lease of 300 s without the operator's servers, while the operator does not answer
served     the STB has its lease, a WAN address of its own, and its rules are in the kernel
waiting    it has asked, and has no lease that could be held; keelctl why tells the reason
broken     it has a lease, and something after that is wrong; keelctl why tells what
absent     it has an identity, and is not on the LAN
dark       it has no lease, or one without a way to the operator

Unconnected  of an identity: its WAN client has no lease yet
Connected    it has one
Internal     its WAN client was stopped, and its last address is kept
Unleased     its WAN client was stopped without an address: its STBs have the stop-gap lease

x ! i      of a trace: an error, a warning, information
)";

int help(Client &, const Options &) {
    std::printf("%s", glossary);
    return done;
}

void take_topic(CLI::App &command, Options &options) {
    command.add_option("topic", options.path, "words: what those of the views mean")
        ->required()
        ->check(CLI::IsMember({"words"}));
}

void take_path(CLI::App &command, Options &options) {
    command.add_option("path", options.path, "an object, such as Keel.Zephyrin")->required();
}

/* The same with words behind it, called so in the help. */
template <const char *const &words> void take_words(CLI::App &command, Options &options) {
    take_path(command, options);
    command.add_option("words", options.words, words);
}

constexpr const char *parameter_words = "PARAMETER";
constexpr const char *value_words = "NAME=VALUE";
constexpr const char *key_words = "[KEY] NAME=VALUE";

void take_stb(CLI::App &command, Options &options) {
    command.add_option("stb", options.path, "its host name, MAC address, IPv4 address or identifier");
}

void take_capture(CLI::App &command, Options &options) {
    command.add_option("stb", options.path, "its host name, MAC address, IPv4 address or identifier")->required();
    command.add_option("-t,--time", options.seconds, "for so many seconds (default: until Ctrl-C)");
    command.add_option("-o,--output", options.file,
                       "the file to write, - for standard output (default: named by the time)");
}

void take_timeline(CLI::App &command, Options &options) {
    command.add_option("--since", options.since, "10m (or s, h, d) ago, or a time of today such as 10:31");
    command.add_option("-o,--output", options.file,
                       "the page to write, or with .svg the picture (default: named by the time)");
}

void take_export(CLI::App &command, Options &options) {
    command.add_option("-o,--output", options.file,
                       "the file to write, - for standard output (default: named by the time)");
}

void take_import(CLI::App &command, Options &options) {
    command.add_option("file", options.path, "what keelctl export has written, - for standard input")->required();
}

void take_lines(CLI::App &command, Options &options) {
    command.add_flag("-f,--follow", options.follow, "go on with those to come");
    command.add_option("-n,--lines", options.lines, "how many of the recent ones")->capture_default_str();
}

void take_archive(CLI::App &command, Options &options) {
    command.add_option("-o,--output", options.file, "the archive to write (default: its name has the time)");
    command.add_flag("--full", options.full, "leave MAC addresses and client identifiers as they are");
}

const Command commands[] = {
    {"why", "tell what keeps an STB from its service, or each that is not served", why, take_stb},
    {"top", "the service at a glance, as it goes on, until Ctrl-C", top, take_nothing},
    {"diagnose", "write all that helps to find a fault into one archive", collect, take_archive},
    {"capture", "capture an STB's packets on both sides of the gateway", capture_stb, take_capture},
    {"timeline", "draw what has happened lately as a page to look at", draw, take_timeline},
    {"export", "write what this box has learned and was set to into a file", carry_out, take_export},
    {"import", "take such a file over, whole or not at all, and tell what has changed", carry_in, take_import},
    {"get", "print an object and what is below it, or single parameters of it", get, take_words<parameter_words>},
    {"set", "write parameters of an object; several at once are one change", set, take_words<value_words>},
    {"add", "add an instance, named by the key or by the model", add, take_words<key_words>},
    {"del", "delete an instance", del, take_path},
    {"watch", "print every change at and below a path, until interrupted", watch, take_path},
    {"trace", "print the recent traces", trace, take_lines},
    {"help", "explain the words of the views: help words", help, take_topic},
};

/* What went wrong, on stderr; for scripts as a JSON line, too. */
int fail(const Options &options, int status, const std::string &reason) {
    const std::string told = options.script
                                 ? Json{{"error", reason}, {"status", status}}.dump(-1, ' ', false, replace_bad_bytes)
                                 : "keelctl: " + reason;
    std::fprintf(stderr, "%s\n", told.c_str());
    return status;
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app{"Without a command: the IPTV service at a glance.", "keelctl"};
    app.set_version_flag("--version", "keelctl " KEEL_VERSION);
    app.add_option("--socket", options.socket, "the host's socket")->envname("KEEL_SOCKET")->capture_default_str();
    app.add_flag("-S", options.script, "print JSON lines, for scripts, errors on stderr among them");
    app.footer("Exit status: 0 done, 1 refused or not understood, 2 the host cannot be reached, 3 an STB is not served "
               "(why).");
    app.require_subcommand(0, 1);
    app.fallthrough(); /* its options are taken after a command, too */
    int (*run)(Client &, const Options &) = status;
    for (const Command &command : commands) {
        CLI::App *sub = app.add_subcommand(command.name, command.help);
        sub->callback([&run, &command] { run = command.run; });
        command.take(*sub, options);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) /* --help, --version */
            return app.exit(error);
        return fail(options, refused, error.what() + std::string("; keelctl --help tells more"));
    }
    try {
        Client client(options.socket);
        return run(client, options);
    } catch (const Unreachable &failure) {
        return fail(options, unreachable, failure.what());
    } catch (const std::exception &failure) {
        return fail(options, refused, failure.what());
    }
}

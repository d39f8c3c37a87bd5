/*
 * The programs that the host starts: what they are given, how they end, and that nothing of them stays.
 */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "host/base/trace.h"
#include "host/gateway/graph.h"
#include "host/linux/child.h"
#include "host/linux/program.h"
#include "host/linux/wan_clients.h"

namespace keel {

namespace {

/* Gone, or dead and only not yet forgotten by whoever inherited it. */
bool is_dead(int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(file, line))
        return true;
    return line.substr(line.rfind(')') + 2, 1) == "Z";
}

bool soon_dead(int pid) {
    for (int turn = 0; turn < 500 && !is_dead(pid); ++turn)
        usleep(10000);
    return is_dead(pid);
}

std::ptrdiff_t open_descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

/* Which of its children this process has not taken the status of. */
bool has_children() {
    siginfo_t one{};
    return waitid(P_ALL, 0, &one, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

} // namespace

class ProgramsTest : public testing::Test {
protected:
    ProgramsTest() {
        TraceLog::instance().set_print(false);
        TraceLog::instance().clear();
    }
    bool soon(const std::function<bool()> &holds) {
        for (int turn = 0; turn < 500 && !holds(); ++turn) {
            loop.settle(20);
            usleep(10000);
        }
        return holds();
    }
    /* What a shell command prints as a child, and its status as the last line. */
    std::vector<std::string> said_by(const std::string &command) {
        std::vector<std::string> lines;
        bool ended = false;
        const auto child = Child::start(
            loop, {"sh", "-c", command}, [&](const std::string &line) { lines.push_back(line); },
            [&](int status) {
                lines.push_back("[" + std::to_string(status) + "]");
                ended = true;
            },
            &error);
        EXPECT_TRUE(child) << error;
        EXPECT_TRUE(soon([&] { return ended; })) << command;
        return lines;
    }

    using Lines = std::vector<std::string>;
    UvLoop loop;
    std::string error;
};

TEST_F(ProgramsTest, WhatTheyPrintComesWholeAndBeforeTheirEnd) {
    EXPECT_EQ(said_by("echo one; echo two >&2; printf three; exit 3"), (Lines{"one", "two", "[3]"}));
    EXPECT_EQ(said_by("kill -KILL $$"), Lines{"[137]"});
    const Lines many = said_by("i=0; while [ $i -lt 5000 ]; do echo line-$i; i=$((i+1)); done");
    ASSERT_EQ(many.size(), 5001U);
    EXPECT_EQ(many[4999], "line-4999");
    const Lines wide = said_by("printf '%05000d\\n' 0");
    ASSERT_EQ(wide.size(), 3U);
    EXPECT_EQ(wide[0].size() + wide[1].size(), 5000U);
    EXPECT_EQ(said_by("exec >&- 2>&-; sleep 0.1"), Lines{"[0]"}) << "one that closes its output lives on";
}

TEST_F(ProgramsTest, TheyAreGivenNothingOfTheHost) {
    const int leak = fcntl(STDERR_FILENO, F_DUPFD, 77); /* not closed by an exec */
    const auto ignored = std::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    EXPECT_EQ(said_by("kill -PIPE $$"), Lines{"[141]"});
    EXPECT_EQ(said_by("kill -TERM $$"), Lines{"[143]"});
    EXPECT_EQ(said_by("cat; readlink /proc/self/fd/0; [ ! -e /proc/$$/fd/" + std::to_string(leak) + " ]"),
              (Lines{"/dev/null", "[0]"}));
    EXPECT_EQ(said_by("[ $(ps -o pgid= -p $$) = $$ ]"), Lines{"[0]"}) << "Ctrl-C in the host's terminal is the host's";
    sigprocmask(SIG_SETMASK, &before, nullptr);
    std::signal(SIGPIPE, ignored);
    close(leak);
}

TEST_F(ProgramsTest, TheyFindTheSystemsProgramsWhateverTheHostWasGiven) {
    const char *old = std::getenv("PATH");
    const std::string before = old ? old : "";
    for (const char *given : {"/usr/local/bin:/usr/bin:/bin:/usr/local/games:/usr/games", "/nonexistent", ""}) {
        setenv("PATH", given, 1);
        setenv("LD_PRELOAD", "/nonexistent", 1);
        EXPECT_EQ(run_and_wait({"iptables", "--version"}, 5000, &error), 0) << error;
        Lines lines;
        const auto child = Child::start(
            loop, {"env"}, [&](const std::string &line) { lines.push_back(line); }, nullptr, &error);
        EXPECT_TRUE(soon([&] { return !has_children(); }));
        EXPECT_EQ(lines, (Lines{"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"}));
    }
    unsetenv("LD_PRELOAD");
    setenv("PATH", before.c_str(), 1);
}

TEST_F(ProgramsTest, OneThatCannotBeStartedIsToldAtOnce) {
    const auto before = open_descriptors();
    const std::pair<const char *, const char *> programs[] = {
        {"/nonexistent/program", "No such file or directory"},
        {"no-such-program-in-the-path", "No such file or directory"},
        {"/etc/passwd", "Permission denied"},
        {"/", "Permission denied"}};
    for (const auto &[program, reason] : programs) {
        error.clear();
        EXPECT_FALSE(Program::start({program}, Program::Output::Piped, &error)) << program;
        EXPECT_EQ(error, reason) << program;
        EXPECT_FALSE(run_and_wait({program}, 1000, &error)) << program;
        EXPECT_FALSE(Child::start(
            loop, {program}, nullptr, [](int) { ADD_FAILURE(); }, &error))
            << program;
    }
    EXPECT_FALSE(has_children());
    UvProcessRunner runner(loop);
    int codes = 0;
    EXPECT_FALSE(runner.run({"/nonexistent/program"}, [](int) { ADD_FAILURE(); }));
    for (const char *program : {"true", "false"})
        EXPECT_TRUE(runner.run({program}, [&](int code) { codes += code ? 2 : 1; })) << program;
    EXPECT_TRUE(soon([&] { return codes == 3; }));
    loop.settle(20);
    EXPECT_FALSE(has_children());
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ProgramsTest, WhatTheyStartedIsKilledWithThem) {
    int grandchild = 0;
    int ended = 0;
    const Lines argv = {"sh", "-c", "sleep 1000 & echo $!; wait"};
    const auto start = [&] {
        grandchild = 0;
        ended = 0;
        auto child = Child::start(
            loop, argv, [&](const std::string &line) { grandchild = std::stoi(line); },
            [&](int status) { ended = status; }, &error);
        EXPECT_TRUE(soon([&] { return grandchild != 0; }));
        return child;
    };
    auto child = start();
    child->kill();
    EXPECT_TRUE(child->wait(5000));
    EXPECT_TRUE(soon([&] { return ended == 137; }));
    EXPECT_TRUE(soon_dead(grandchild));

    child = start();
    EXPECT_FALSE(child->wait(150));
    child.reset();
    EXPECT_TRUE(soon_dead(grandchild));
    EXPECT_TRUE(soon([&] { return !has_children(); })) << "its status is taken, although nobody is told";
    EXPECT_EQ(ended, 0);

    child = Child::start(
        loop, {"sh", "-c", "echo; echo; sleep 1000"},
        [&](const std::string &) {
            ++ended;
            child.reset();
        },
        nullptr, &error);
    EXPECT_TRUE(soon([&] { return !child && !has_children(); }));
    EXPECT_EQ(ended, 1) << "one line destroyed it, the next is nobody's";

    const std::string file = std::filesystem::temp_directory_path() / ("limit-" + std::to_string(getpid()));
    EXPECT_FALSE(run_and_wait({"sh", "-c", "sleep 1000 & echo $! >" + file + "; wait"}, 300, &error));
    EXPECT_EQ(error.find("killed"), 0U) << error;
    std::ifstream(file) >> grandchild;
    EXPECT_TRUE(soon_dead(grandchild));
    std::filesystem::remove(file);
    EXPECT_EQ(run_and_wait({"sh", "-c", "exit 4"}, 5000, &error), 4);
    EXPECT_FALSE(has_children());
}

TEST_F(ProgramsTest, OneThatRunsForLongerThanItMayIsKilled) {
    int grandchild = 0;
    int ended = 0;
    auto child = Child::start(
        loop, {"sh", "-c", "sleep 1000 & echo $!; wait"},
        [&](const std::string &line) { grandchild = std::stoi(line); }, [&](int status) { ended = status; }, &error);
    child->limit(300);
    EXPECT_TRUE(soon([&] { return ended == 137; }));
    EXPECT_TRUE(soon_dead(grandchild));
    EXPECT_EQ(TraceLog::instance().recent().back().text, "sh is killed, because it runs for more than 0.3 s");

    TraceLog::instance().clear();
    child = Child::start(
        loop, {"true"}, nullptr, [&](int status) { ended = status; }, &error);
    child->limit(100);
    auto forgotten = Child::start(loop, {"sleep", "1000"}, nullptr, nullptr, &error);
    forgotten->limit(100);
    forgotten.reset();
    EXPECT_TRUE(soon([&] { return ended == 0 && !has_children(); }));
    usleep(200000);
    loop.settle(20);
    EXPECT_TRUE(TraceLog::instance().recent().empty()) << "what has ended is not killed";
}

TEST_F(ProgramsTest, NoneOutlivesAHostThatIsKilled) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t host = fork();
    if (host == 0) {
        const auto program = Program::start({"sleep", "1000"}, Program::Output::Inherited, &error);
        const int pid = program ? program->pid() : 0;
        if (write(ends[1], &pid, sizeof pid) == sizeof pid)
            pause();
        _exit(1);
    }
    int pid = 0;
    ASSERT_EQ(read(ends[0], &pid, sizeof pid), static_cast<ssize_t>(sizeof pid));
    ASSERT_GT(pid, 0);
    EXPECT_FALSE(is_dead(pid));
    kill(host, SIGKILL);
    waitpid(host, nullptr, 0);
    EXPECT_TRUE(soon_dead(pid));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ProgramsTest, TheReportScriptTellsOptionsAndTheEvent) {
    const std::string lease =
        "export opt1=ffffff00 opt72=0a140003 opt254=00 opt60= opt61='0g' opt62='$(echo no)' opt255=01 "
        "ip=10.0.0.9 subnet=255.0.0.0 staticroutes='10.60.0.0/24 10.0.0.1' serverid=10.0.0.1; ";
    const std::string script = SOURCE_DIR "/share/udhcpc-report.sh ";
    const std::string event = "|10.0.0.9|255.0.0.0||10.60.0.0/24 10.0.0.1|||10.0.0.1";
    EXPECT_EQ(said_by(lease + script + "bound"),
              (Lines{"@option|1|ffffff00", "@option|72|0a140003", "@option|254|00", "@bound" + event, "[0]"}));
    EXPECT_EQ(said_by(lease + script + "nak"), (Lines{"@nak" + event, "[0]"}));
    EXPECT_EQ(said_by(script + "deconfig"), (Lines{"@deconfig|||||||", "[0]"}));
}

/* The DHCP client is a script that notes its start, and some time later that it has drawn its transaction ids. */
TEST_F(ProgramsTest, WanClientsDrawTheirTransactionIdsOneAfterTheOther) {
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("wan-starts-" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    const std::string program = folder / "client";
    const auto is = [&](const std::string &what) {
        std::ofstream file(program + ".new");
        file << "#!/bin/sh\necho starts >>" << folder.string() << "/log\n" << what << "exec sleep 1000\n";
        file.close();
        std::filesystem::permissions(program + ".new", std::filesystem::perms::owner_all);
        std::filesystem::rename(program + ".new", program);
    };
    const auto log = [&] {
        Lines lines;
        std::ifstream file(folder / "log");
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    };
    Model model(loop);
    model.load_file(SOURCE_DIR "/share/gateway.json");
    model.set("Weft.Intf.eth1.20", {{"Flags", std::string("netdev up")}});
    const auto enable = [&](bool on) {
        for (const char *name : {"dhcp_zep_0", "dhcp_zep_1", "dhcp_zep_2", "dhcp_zep_3"})
            if (model.find(interface_path(name)))
                model.set(interface_path(name), {{"Enable", on}});
            else
                model.add(
                    "Weft.Intf", name,
                    {{"Enable", on}, {"Flags", std::string("dhcp zep-dhcp")}, {"LowerLayers", std::string("eth1.20")}});
        std::filesystem::remove(folder / "log");
    };
    InterfaceGraph graph(model);
    WanClients clients(loop, graph, program, "report");
    is("sleep 0.05\necho drawn >>" + folder.string() + "/log\necho '@deconfig|||||||'\n");
    enable(true);
    EXPECT_TRUE(soon([&] { return log().size() == 8; }));
    for (std::size_t at = 0; at < log().size(); ++at)
        EXPECT_EQ(log()[at], at % 2 ? "drawn" : "starts") << at;
    loop.settle(20);
    enable(false);
    EXPECT_TRUE(soon([&] { return !has_children(); }));

    /* One that says nothing, or that is stopped before it has, holds up the others for a moment only. */
    is("");
    enable(true);
    EXPECT_TRUE(soon([&] { return log().size() == 1; }));
    model.set(interface_path("dhcp_zep_1"), {{"Enable", false}}); /* one of those that wait */
    EXPECT_TRUE(soon([&] { return log().size() == 3; }));
    enable(false);
    EXPECT_TRUE(soon([&] { return !has_children(); }));
    usleep(700000);
    loop.settle(20);
    EXPECT_EQ(log(), Lines{});

    /* One that cannot be started is told, and tried again. */
    std::filesystem::remove(program);
    enable(true);
    EXPECT_TRUE(soon([&] {
        std::size_t failures = 0;
        for (const TraceLine &line : TraceLog::instance().recent())
            failures += line.text.find("/client cannot be started: No such file or directory") != std::string::npos;
        return failures >= 4;
    }));
    is("echo '@deconfig|||||||'\n");
    EXPECT_TRUE(soon([&] { return log().size() == 4; }));
    std::filesystem::remove_all(folder);
}

} // namespace keel

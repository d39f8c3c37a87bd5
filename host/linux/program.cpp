#include "host/linux/program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <sstream>

namespace keel {

namespace {

constexpr int slice_ms = 100; /* of a wait: one that a signal cut short counts as whole, so that it ends in any case */
constexpr int kill_ms = 1000; /* until a killed program is gone, unless the kernel holds it */

/* The host may have been started with any PATH, as by an ordinary user's shell, where those of the administrator's
 * programs are missing. */
char path[] = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
char language[] = "LC_ALL=C";
char *environment[] = {path, language, nullptr};

void close_pipe(const int (&ends)[2]) {
    for (const int end : ends)
        if (end >= 0)
            close(end);
}

/* In the new process, with all signals blocked: becomes the program, or writes the reason why it cannot. */
[[noreturn]] void become(char *const *argv, pid_t parent, int output, int report, const Confinement *confinement) {
    const auto fail = [report] {
        const int reason = errno;
        [[maybe_unused]] const ssize_t written = write(report, &reason, sizeof reason);
        _exit(127);
    };
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || setpgid(0, 0) != 0)
        fail();
    if (getppid() != parent) /* it died before the kernel knew what to do then */
        _exit(127);
    const int nothing = open("/dev/null", O_RDONLY);
    if (nothing < 0 || dup2(nothing, STDIN_FILENO) < 0)
        fail();
    if (output >= 0 && (dup2(output, STDOUT_FILENO) < 0 || dup2(output, STDERR_FILENO) < 0))
        fail();
    if (close_range(STDERR_FILENO + 1, UINT_MAX, CLOSE_RANGE_CLOEXEC) != 0)
        fail();
    if (confinement && !confine(*confinement))
        fail();
    for (int number = 1; number < NSIG; ++number)
        signal(number, SIG_DFL); /* the host's handlers must not run here; some cannot be set, nor need it */
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    environ = environment; /* where execvp looks for the PATH, too */
    execvp(argv[0], argv);
    fail();
    _exit(127);
}

} // namespace

std::unique_ptr<Program> Program::start(const std::vector<std::string> &argv, Output output, std::string *error,
                                        const Confinement *confinement) {
    std::vector<std::string> words = argv;
    std::vector<char *> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string &word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);

    int report[2] = {-1, -1}; /* closed by the exec, so that it stays empty when that went well */
    int lines[2] = {-1, -1};
    if (pipe2(report, O_CLOEXEC) != 0 || (output == Output::Piped && pipe2(lines, O_CLOEXEC) != 0)) {
        *error = std::strerror(errno);
        close_pipe(report);
        return nullptr;
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0)
        become(pointers.data(), parent, lines[1], report[1], confinement);
    int reason = pid < 0 ? errno : 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);

    close(report[1]);
    report[1] = -1;
    if (pid > 0)
        while (read(report[0], &reason, sizeof reason) < 0 && errno == EINTR) {
        }
    const int end = pid > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1;
    if (pid > 0 && reason == 0 && end < 0)
        reason = errno;
    close_pipe(report);
    if (reason == 0 && output == Output::Piped) {
        close(lines[1]);
        lines[1] = -1;
        fcntl(lines[0], F_SETFL, O_NONBLOCK);
    }
    if (reason == 0)
        return std::unique_ptr<Program>(new Program(pid, end, lines[0]));

    *error = std::strerror(reason);
    close_pipe(lines);
    if (pid > 0) {
        ::kill(-pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    if (end >= 0)
        close(end);
    return nullptr;
}

Program::~Program() {
    if (!status()) {
        kill();
        wait(kill_ms);
        status();
    }
    close(end_);
    if (output_ >= 0)
        close(output_);
}

void Program::kill() {
    if (!status_)
        ::kill(-pid_, SIGKILL);
}

std::optional<int> Program::status() {
    siginfo_t ended{};
    if (!status_ && waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG) == 0 && ended.si_pid == pid_)
        status_ = ended.si_code == CLD_EXITED ? ended.si_status : 128 + ended.si_status;
    return status_;
}

bool Program::wait(int milliseconds) const {
    pollfd ended{end_, POLLIN, 0};
    for (int left = milliseconds; left > 0; left -= slice_ms)
        if (poll(&ended, 1, std::min(left, slice_ms)) > 0)
            return true;
    return poll(&ended, 1, 0) > 0;
}

std::string find_program(const std::string &name) {
    std::error_code error;
    const auto is_there = [&](const std::string &file) {
        return std::filesystem::is_regular_file(file, error) && access(file.c_str(), X_OK) == 0;
    };
    if (name.find('/') != std::string::npos)
        return is_there(name) ? name : "";
    std::istringstream folders(std::strchr(path, '=') + 1);
    for (std::string folder; std::getline(folders, folder, ':');)
        if (is_there(folder + "/" + name))
            return folder + "/" + name;
    return "";
}

std::optional<int> run_and_wait(const std::vector<std::string> &argv, int milliseconds, std::string *error) {
    const auto program = Program::start(argv, Program::Output::Inherited, error);
    if (!program)
        return std::nullopt;
    if (program->wait(milliseconds))
        return program->status();
    program->kill();
    *error = "killed, because it ran for more than " + std::to_string(milliseconds / 1000) + " s";
    return std::nullopt;
}

} // namespace keel

#include "host/linux/chains.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace keel {

namespace {

std::vector<std::string> iptables(const char *operation, const std::string &chain) {
    return {"/usr/sbin/iptables", "-w", "5", "-t", "filter", operation, chain};
}

} // namespace

bool set_up_chains(const std::string &script, std::string *error) {
    const int status = run_and_wait({script});
    if (status == 0)
        return true;
    if (status < 0)
        *error = script + ": " + std::strerror(errno);
    else
        *error = script + (status == 127 ? ": cannot be run" : ": failed; its messages are above");
    return false;
}

std::vector<std::string> flush_command(const std::string &chain) {
    return iptables("-F", chain);
}

std::vector<std::string> append_command(const std::string &chain, const std::vector<std::string> &rule) {
    std::vector<std::string> argv = iptables("-A", chain);
    argv.insert(argv.end(), rule.begin(), rule.end());
    return argv;
}

int run_and_wait(const std::vector<std::string> &argv) {
    std::vector<std::string> words = argv;
    std::vector<char *> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string &word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    const pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        execv(pointers.front(), pointers.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace keel

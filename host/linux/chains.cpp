#include "host/linux/chains.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace keel {

bool set_up_chains(const std::string &script, std::string *error) {
    const pid_t pid = fork();
    if (pid < 0) {
        *error = script + ": " + std::strerror(errno);
        return false;
    }
    if (pid == 0) {
        execl(script.c_str(), script.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return true;
    *error = script +
             (WIFEXITED(status) && WEXITSTATUS(status) == 127 ? ": cannot be run" : ": failed; its messages are above");
    return false;
}

} // namespace keel

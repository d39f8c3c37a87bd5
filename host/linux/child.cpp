#include "host/linux/child.h"

#include <csignal>

#include <algorithm>
#include <utility>

#include "host/base/trace.h"

namespace keel {

namespace {
constexpr std::size_t max_line = 4096; /* a longer one is handed on in pieces */
}

struct Child::State {
    uv_process_t process{};
    uv_pipe_t output{};
    char buffer[1024];
    std::string line;
    OnLine on_line;
    OnExit on_exit;
    int open_handles = 0;
    bool abandoned = false;

    void close(uv_handle_t *handle) {
        if (uv_is_closing(handle))
            return;
        uv_close(handle, [](uv_handle_t *closed) {
            auto *state = static_cast<State *>(closed->data);
            if (--state->open_handles == 0 && state->abandoned)
                delete state;
        });
    }

    void take(const char *data, std::size_t size) {
        for (std::size_t i = 0; i < size && !abandoned; ++i) {
            if (data[i] != '\n')
                line += data[i];
            if (data[i] == '\n' || line.size() >= max_line) {
                const std::string whole = std::exchange(line, "");
                on_line(whole);
            }
        }
    }
};

std::unique_ptr<Child> Child::start(UvLoop &loop, const std::vector<std::string> &argv, OnLine on_line, OnExit on_exit,
                                    std::string *error) {
    /* libuv has no way to ask for the parent-death signal; setpriv asks for it and becomes the program. */
    std::vector<std::string> words = {"setpriv", "--pdeathsig", "KILL", "--"};
    words.insert(words.end(), argv.begin(), argv.end());
    std::vector<char *> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string &word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);

    auto *state = new State;
    state->on_line = std::move(on_line);
    state->on_exit = std::move(on_exit);
    state->process.data = state;
    state->output.data = state;

    uv_stdio_container_t stdio[3];
    stdio[0].flags = UV_IGNORE;
    for (int i = 1; i < 3; ++i) {
        stdio[i].flags = UV_INHERIT_FD;
        stdio[i].data.fd = i;
    }
    if (state->on_line) {
        uv_pipe_init(loop.handle(), &state->output, 0);
        state->open_handles = 1;
        int ends[2];
        if (uv_pipe(ends, UV_NONBLOCK_PIPE, 0) != 0 || uv_pipe_open(&state->output, ends[0]) != 0) {
            *error = "no pipe for its output";
            state->abandoned = true;
            state->close(reinterpret_cast<uv_handle_t *>(&state->output));
            return nullptr;
        }
        stdio[1].data.fd = stdio[2].data.fd = ends[1];
    }
    uv_process_options_t options{};
    options.file = pointers[0];
    options.args = pointers.data();
    options.stdio = stdio;
    options.stdio_count = 3;
    options.exit_cb = [](uv_process_t *process, std::int64_t status, int signal) {
        auto *exited = static_cast<State *>(process->data);
        exited->close(reinterpret_cast<uv_handle_t *>(process));
        if (exited->on_line)
            exited->close(reinterpret_cast<uv_handle_t *>(&exited->output));
        if (!exited->abandoned && exited->on_exit)
            exited->on_exit(signal ? 128 + signal : static_cast<int>(status));
    };
    const int result = uv_spawn(loop.handle(), &state->process, &options);
    ++state->open_handles; /* a process handle must be closed also when nothing was started */
    if (state->on_line)
        ::close(stdio[1].data.fd);
    std::unique_ptr<Child> child(new Child(state));
    if (result != 0) {
        *error = uv_strerror(result);
        state->abandoned = true;
        state->close(reinterpret_cast<uv_handle_t *>(&state->process));
        return nullptr;
    }
    if (state->on_line)
        uv_read_start(
            reinterpret_cast<uv_stream_t *>(&state->output),
            [](uv_handle_t *handle, std::size_t, uv_buf_t *room) {
                auto *reader = static_cast<State *>(handle->data);
                *room = uv_buf_init(reader->buffer, sizeof reader->buffer);
            },
            [](uv_stream_t *stream, ssize_t size, const uv_buf_t *read) {
                auto *reader = static_cast<State *>(stream->data);
                if (size > 0)
                    reader->take(read->base, static_cast<std::size_t>(size));
                else if (size < 0)
                    uv_read_stop(stream);
            });
    return child;
}

Child::~Child() {
    state_->abandoned = true;
    if (state_->open_handles == 0) {
        delete state_;
        return;
    }
    if (uv_is_active(reinterpret_cast<uv_handle_t *>(&state_->process)))
        uv_process_kill(&state_->process, SIGKILL);
    if (state_->on_line)
        state_->close(reinterpret_cast<uv_handle_t *>(&state_->output));
    /* The process handle is closed when the exit has been seen, so that no zombie stays. */
}

int Child::pid() const {
    return uv_process_get_pid(&state_->process);
}

UvProcessRunner::~UvProcessRunner() = default;

bool UvProcessRunner::run(const std::vector<std::string> &argv, OnExit on_exit) {
    const auto slot = std::make_shared<std::unique_ptr<Child>>();
    std::string error;
    *slot = Child::start(
        loop_, argv, nullptr,
        [this, weak = std::weak_ptr(slot), on_exit](int status) { /* the child keeps this, so this must not keep it */
                                                                  loop_.post([this, ended = weak.lock()] {
                                                                      std::erase(running_, ended);
                                                                  });
                                                                  on_exit(status);
        },
        &error);
    if (!*slot) {
        trace(Level::Error, "process", "%s: %s", argv.front().c_str(), error.c_str());
        return false;
    }
    running_.push_back(slot);
    return true;
}

} // namespace keel

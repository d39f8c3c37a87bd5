#include "host/linux/child.h"

#include <cstdio>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <uv.h>

#include "host/base/trace.h"
#include "host/linux/program.h"

namespace keel {

namespace {
constexpr std::size_t max_line = 4096;           /* a longer one is handed on in pieces */
constexpr int reads_a_turn = 16;                 /* one that prints without end must not hold the loop */
constexpr std::uint64_t script_limit_ms = 60000; /* of a process object's program */
} // namespace

struct Child::State {
    State(UvLoop &on, std::string called, std::unique_ptr<Program> started)
        : loop(on), name(std::move(called)), program(std::move(started)) {}
    State(const State &) = delete;
    State &operator=(const State &) = delete;
    ~State() { loop.cancel_timer(limit); }

    UvLoop &loop;
    std::string name;
    std::unique_ptr<Program> program;
    Loop::TimerId limit = 0;
    uv_poll_t end{};
    uv_poll_t output{};
    std::string line;
    OnLine on_line;
    OnExit on_exit;
    int open_handles = 0;
    bool abandoned = false; /* the child's record is gone: nothing is reported any more */

    void watch(uv_poll_t *handle, int descriptor, uv_poll_cb ready) {
        uv_poll_init(loop.handle(), handle, descriptor);
        handle->data = this;
        ++open_handles;
        uv_poll_start(handle, UV_READABLE, ready);
    }

    void close(uv_poll_t *handle) {
        auto *plain = reinterpret_cast<uv_handle_t *>(handle);
        if (!handle->data || uv_is_closing(plain))
            return;
        uv_close(plain, [](uv_handle_t *closed) {
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

    void read() {
        char buffer[4096];
        for (int turn = 0; turn < reads_a_turn && !abandoned; ++turn) {
            const ssize_t size = ::read(program->output(), buffer, sizeof buffer);
            if (size > 0) {
                take(buffer, static_cast<std::size_t>(size));
                continue;
            }
            if (size == 0 || errno != EAGAIN)
                uv_poll_stop(&output); /* nothing comes any more */
            return;
        }
    }

    void ended() {
        loop.cancel_timer(std::exchange(limit, 0));
        if (on_line)
            read(); /* what it said last */
        close(&end);
        close(&output);
        const std::optional<int> status = program->status();
        if (!abandoned && on_exit)
            on_exit(status.value_or(-1));
    }
};

std::unique_ptr<Child> Child::start(UvLoop &loop, const std::vector<std::string> &argv, OnLine on_line, OnExit on_exit,
                                    std::string *error, const Confinement *confinement) {
    auto program =
        Program::start(argv, on_line ? Program::Output::Piped : Program::Output::Inherited, error, confinement);
    if (!program)
        return nullptr;
    auto *state = new State(loop, argv.front(), std::move(program));
    state->on_line = std::move(on_line);
    state->on_exit = std::move(on_exit);
    state->watch(&state->end, state->program->end(),
                 [](uv_poll_t *poll, int, int) { static_cast<State *>(poll->data)->ended(); });
    if (state->on_line)
        state->watch(&state->output, state->program->output(),
                     [](uv_poll_t *poll, int, int) { static_cast<State *>(poll->data)->read(); });
    return std::unique_ptr<Child>(new Child(state));
}

Child::~Child() {
    state_->abandoned = true;
    if (state_->open_handles == 0) {
        delete state_;
        return;
    }
    state_->program->kill();
    state_->close(&state_->output);
    /* The other handle is closed when the end has been seen and the status taken. */
}

int Child::pid() const {
    return state_->program->pid();
}

void Child::kill() {
    state_->program->kill();
}

void Child::limit(std::uint64_t milliseconds) {
    state_->limit = state_->loop.start_timer(milliseconds, [state = state_, milliseconds] {
        state->limit = 0;
        trace(Level::Error, "process", "%s is killed, because it runs for more than %.1f s", state->name.c_str(),
              static_cast<double>(milliseconds) / 1000);
        state->program->kill();
    });
}

bool Child::wait(int milliseconds) const {
    return state_->program->wait(milliseconds);
}

bool UvProcessRunner::run(const std::vector<std::string> &argv, OnExit on_exit) {
    std::string error;
    const std::uint64_t number = ++started_;
    const auto said = std::make_shared<std::string>();
    auto child = Child::start(
        loop_, argv,
        [said](const std::string &line) {
            std::fprintf(stderr, "%s\n", line.c_str());
            *said = line;
        },
        [this, number, argv, said, on_exit = std::move(on_exit)](int status) {
            running_.erase(number); /* what is called here stays until the child's handles are closed */
            if (report_)
                report_(argv, status, *said);
            on_exit(status);
        },
        &error);
    if (!child) {
        trace(Level::Error, "process", "%s cannot be started: %s", argv.front().c_str(), error.c_str());
        return false;
    }
    child->limit(script_limit_ms);
    running_.emplace(number, std::move(child));
    return true;
}

} // namespace keel

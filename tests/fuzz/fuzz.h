/*
 * What the fuzzers share: taking an input apart, saying what must hold, and the part of the gateway's model that a
 * target needs.
 */
#ifndef TESTS_FUZZ_FUZZ_H
#define TESTS_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/base/text_forms.h"
#include "host/model/model.h"
#include "host/sim/sim_loop.h"

/* One run on one input; a fault ends the process. */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace keel::fuzz {

/* Ends the process, with the text, when it does not hold; in every build type. */
void require(bool holds, const std::string &what);

/* An input as a sequence of small decisions; zeros once it is used up. */
class Input {
public:
    Input(const std::uint8_t *data, std::size_t size) : at_(data), end_(data + size) {}

    bool empty() const { return at_ == end_; }
    std::uint8_t byte() { return empty() ? std::uint8_t{0} : *at_++; }
    bool flag() { return byte() & 1; }
    /* From 0 to count - 1, which is at most 255. */
    std::size_t below(std::size_t count) { return byte() % count; }
    std::uint32_t number();
    /* As long as the next byte says. */
    Bytes bytes();
    std::string text();
    /* Up to the separator, which is taken but not part of it, or the end. */
    std::string until(char separator);
    Bytes rest(std::size_t longest);

private:
    const std::uint8_t *at_;
    const std::uint8_t *end_;
};

/* A copy without room behind its end, so that the sanitizer sees each byte that is read there. */
std::unique_ptr<std::uint8_t[]> bare(const Bytes &bytes);

/* The gateway's model file with these top objects alone. Nothing is printed by the host from then on. */
std::string model_part(std::initializer_list<const char *> tops);

/* A part of the gateway's model, on a virtual clock. To read its file takes longer than a run, so one serves all runs,
 * each of which finds it as if it were new. */
class Gateway : private Loop {
public:
    explicit Gateway(std::initializer_list<const char *> tops);

    /* Of a run: the clock anew, the model as the file has it. The run before must have left nothing that watches. */
    void begin();
    SimLoop &loop() { return *loop_; }
    Model &model() { return model_; }

private:
    void post(Task task) override { loop_->post(std::move(task)); }
    void post_last(Task task) override { loop_->post_last(std::move(task)); }
    TimerId start_timer(std::uint64_t milliseconds, Task task) override {
        return loop_->start_timer(milliseconds, std::move(task));
    }
    void cancel_timer(TimerId id) override { loop_->cancel_timer(id); }
    std::uint64_t now_ms() const override { return loop_->now_ms(); }
    std::uint64_t wall_clock_s() const override { return loop_->wall_clock_s(); }
    void take_back(const Node &first);

    std::optional<SimLoop> loop_;
    Model first_{*this}; /* as the file has it, for ever */
    Model model_{*this};
};

/* All that the model holds at and below a path, order included; persistent: of the persistent objects alone. */
std::string dump(const Model &model, const std::string &path = "", bool persistent = false);
/* Every value fits its parameter's type, every instance has a valid name, and a path leads to a node of that path. */
void check_model(const Model &model);

} // namespace keel::fuzz

#endif

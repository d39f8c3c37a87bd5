/*
 * What the fuzzers share: taking an input apart, saying what must hold, and the model that a target needs.
 */
#ifndef TESTS_FUZZ_FUZZ_H
#define TESTS_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

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

/* The gateway's model file with these top objects alone. */
std::string model_part(std::initializer_list<const char *> tops);

/* What each run's model is made of. To read its file takes longer than a run, so it is read once. Nothing is printed by
 * the host from then on. */
class Tree {
public:
    explicit Tree(const std::string &json);

    void plant(Model &model) const { model.load_shape(*root_); }

private:
    Shapes shapes_;
    const Shape *root_;
};

/* All that the model holds at and below a path, order included: of all objects, or of those alone that are persistent,
 * or that are not. */
std::string dump(const Model &model, const std::string &path = "", std::optional<bool> persistent = std::nullopt);
/* The path of one of the objects at and below a path that exists: names at random seldom lead to one that was added. */
std::string some_path(const Model &model, Input &input, const std::string &path = "");
/* Every value fits its parameter's type, every instance has a valid name, and a path leads to a node of that path. */
void check_model(const Model &model);

} // namespace keel::fuzz

#endif

#include "tests/fuzz/fuzz.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/base/trace.h"

namespace keel::fuzz {

namespace {

void each_node(const Node &node, const std::function<void(const Node &)> &visit) {
    visit(node);
    for (const Node &child : node.children)
        each_node(child, visit);
}

} // namespace

void require(bool holds, const std::string &what) {
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what.c_str());
    std::abort();
}

std::uint32_t Input::number() {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = value << 8 | byte();
    return value;
}

Bytes Input::bytes() {
    const std::size_t length = byte();
    return rest(length);
}

std::string Input::text() {
    const Bytes all = bytes();
    return {all.begin(), all.end()};
}

std::string Input::until(char separator) {
    const auto *found = std::find(at_, end_, static_cast<std::uint8_t>(separator));
    std::string taken(at_, found);
    at_ = found == end_ ? end_ : found + 1;
    return taken;
}

Bytes Input::rest(std::size_t longest) {
    const auto length = std::min(longest, static_cast<std::size_t>(end_ - at_));
    Bytes taken(at_, at_ + length);
    at_ += length;
    return taken;
}

std::unique_ptr<std::uint8_t[]> bare(const Bytes &bytes) {
    auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return copy;
}

std::string model_part(std::initializer_list<const char *> tops) {
    std::ifstream file(SOURCE_DIR "/share/gateway.json");
    const auto whole = nlohmann::ordered_json::parse(file);
    nlohmann::ordered_json part;
    for (const char *top : tops)
        part["objects"][top] = whole.at("objects").at(top);
    return part.dump();
}

Tree::Tree(const std::string &json) : root_(read_shapes(json, "tree", shapes_)) {
    TraceLog::instance().set_print(false);
}

std::string dump(const Model &model, const std::string &path, std::optional<bool> persistent) {
    std::string text;
    const Node *from = model.find(path);
    if (!from)
        return text;
    each_node(*from, [&](const Node &node) {
        if (persistent && node.persistent != *persistent)
            return;
        text += node.path() + "\n";
        for (const auto &[name, value] : node.values())
            text += " " + name + "=" + to_text(value) + "\n";
    });
    return text;
}

std::string some_path(const Model &model, Input &input, const std::string &path) {
    std::vector<const Node *> all;
    each_node(*model.find(path), [&](const Node &node) { all.push_back(&node); });
    return all[(all.size() - 1) * input.byte() / 255]->path();
}

void check_model(const Model &model) {
    each_node(*model.find(""), [&](const Node &node) {
        const std::string path = node.path();
        for (const Parameter &parameter : node.parameters) {
            const std::string reason = misfit(parameter.type(), parameter.value);
            require(reason.empty(), path + ": " + parameter.name() + " " + reason);
        }
        require(!node.instance || valid_key(node.name), path + " has a bad name");
        const Node *found = model.find(path);
        require(!found || found->path() == path, path + " leads to " + (found ? found->path() : ""));
        for (const Node &child : node.children)
            require(child.parent == &node && node.child(child.name) == &child, child.path() + " is not found below");
    });
}

} // namespace keel::fuzz

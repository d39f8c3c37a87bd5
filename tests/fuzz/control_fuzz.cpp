/* What clients of the control socket say: each line gets one answer that says whether it was done, in JSON; what was
 * not leaves the model as it was. A client may be gone in the midst of an answer. */
#include <string>

#include <nlohmann/json.hpp>

#include "host/base/trace.h"
#include "host/control/conversation.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;
using fuzz::require;

namespace {

constexpr const char *box = R"({"objects": {
  "Box": {"parameters": {"Name": ["text", "a"], "Count": ["uint8", 1], "On": ["bool", false], "Free": ["int32", null]},
          "objects": {"Item": {"instance": {"parameters": {"Value": ["text", "x"]},
                                            "objects": {"Sub": {"instance": {"parameters": {"N": ["uint64", 0]}}}}},
                               "instances": {"eth1": {}, "eth1.20": {}}}}}}})";
constexpr std::size_t most_lines = 32;

class Play {
public:
    Play(const fuzz::Tree &tree, const std::uint8_t *data, std::size_t size) : input_(data, size) {
        TraceLog::instance().clear();
        tree.plant(model_);
        patience_ = input_.byte();
        safe_ = !input_.flag();
    }

    void run() {
        for (std::size_t count = 0; count < most_lines && !input_.empty(); ++count) {
            const std::string line = input_.until('\n');
            const std::uint64_t before = model_.generation();
            answers_ = 0;
            done_ = false;
            client_.take(line);
            require(gone_ || answers_ == 1, "a line has one answer");
            require(gone_ || done_ || !safe_ || model_.generation() == before, "what is refused is not done");
            trace(Level::Warning, "fuzz", "%s", line.c_str()); /* for who follows */
            loop_.run_until_idle();
        }
        fuzz::check_model(model_);
    }

private:
    void hear(const std::string &line) {
        require(!gone_, "nothing is said to a client that is gone");
        require(line.find('\n') == line.size() - 1, "one line at a time");
        const auto json = nlohmann::json::parse(line);
        require(json.is_object() && (json.contains("ok") || json.contains("event") || json.contains("trace")), line);
        if (json.contains("ok")) {
            ++answers_;
            done_ = json["ok"].get<bool>();
            require(done_ || !json["error"].get<std::string>().empty(), "a refusal has a reason");
        }
        if (++heard_ > patience_) {
            gone_ = true;
            client_.end();
        }
    }

    fuzz::Input input_;
    SimLoop loop_;
    Model model_{loop_};
    bool safe_ = true;
    const ControlActions actions_{[this] { return std::string(safe_ ? "" : "the disk is full"); }, {}};
    std::size_t heard_ = 0;
    std::size_t patience_ = 0; /* lines after which the client is gone */
    std::size_t answers_ = 0;
    bool done_ = false;
    bool gone_ = false;
    Conversation client_{model_, actions_, [this](const std::string &line) { hear(line); }};
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const fuzz::Tree tree(box);
    Play(tree, data, size).run();
    return 0;
}

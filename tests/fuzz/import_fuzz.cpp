/* What one box has learned, for another: it is refused with the place and nothing is done, or all of it is taken over,
 * and exported again as it came. */
#include <string>
#include <vector>

#include "host/config/import.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const fuzz::Tree tree(fuzz::model_part({"Keel", "KeelHost", "DHCPv4", "Hosts"}));
    const std::string text(data, data + size);
    SimLoop loop;
    Model model(loop);
    tree.plant(model);
    Settings settings(model);
    Import box(loop, model, settings, "fuzzer", [] { return std::string("02:00:00:00:00:01"); });
    const auto take = [&](const std::string &wanted) {
        std::vector<Import::Answer> answers;
        box.take(wanted, [&](const Import::Answer &answer) { answers.push_back(answer); });
        loop.advance(30000); /* longer than the mode may take to be left */
        fuzz::require(answers.size() == 1, "an import is answered once");
        return answers.front();
    };

    const std::string before = fuzz::dump(model);
    const Import::Answer answer = take(text);
    for (const std::string &error : answer.errors)
        fuzz::require(error.find(": ") != std::string::npos, "a refusal has a place: " + error);
    fuzz::check_model(model);
    if (!answer.errors.empty()) {
        fuzz::require(fuzz::dump(model) == before, "what is refused changes nothing");
        return 0;
    }
    fuzz::require(!answer.told.empty(), "it is told what was done");
    const std::string after = fuzz::dump(model);
    const Import::Answer again = take(box.text());
    fuzz::require(again.errors.empty(), "a box takes what it has exported itself");
    fuzz::require(fuzz::dump(model) == after, "which changes nothing");
    return 0;
}

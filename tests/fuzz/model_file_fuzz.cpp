/* The file that describes a gateway: it is refused with its name and the place, or makes a model that is sound. */
#include <string>

#include "host/model/model.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text(data, data + size);
    const std::string file = "gateway.json";
    SimLoop loop;
    Model model(loop);
    try {
        model.load_text(text, file);
    } catch (const ModelError &error) {
        const std::string reason = error.what();
        const auto place = reason.find(": ", file.size() + 2);
        fuzz::require(reason.starts_with(file + ": ") && place != std::string::npos && place > file.size() + 2, reason);
        fuzz::require(model.find("")->children.empty() && model.find("")->parameters.empty(), "nothing of it is there");
        return 0;
    }
    fuzz::check_model(model);
    Model again(loop);
    again.load_text(text, file);
    fuzz::require(fuzz::dump(again) == fuzz::dump(model), "a file makes one model");
    return 0;
}

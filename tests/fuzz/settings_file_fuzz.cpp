/* A person's settings file: each mistake is told with its line, and then nothing of the file is in force; or all that
 * it sets has a place in the model, and says the same when it is read again. */
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "host/config/box_config.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const fuzz::Tree tree(fuzz::model_part({"Keel", "KeelHost", "DHCPv4", "Weft"}));
    static const int memory = memfd_create("keelhost.toml", MFD_CLOEXEC);
    static const std::string file = "/proc/self/fd/" + std::to_string(memory);
    fuzz::require(ftruncate(memory, 0) == 0 && pwrite(memory, data, size, 0) == static_cast<ssize_t>(size),
                  "a file in memory can be written");
    SimLoop loop;
    Model model(loop);
    tree.plant(model);
    const BoxDefaults defaults = box_defaults(model);
    const BoxConfig config = read_box_config(file, defaults);
    for (const std::string &error : config.errors) {
        const auto line = error.find(":", file.size());
        fuzz::require(error.starts_with(file + ":") && error.find(": ", line) != std::string::npos, error);
        fuzz::require(printable_text(error, error.size()) == error, "a terminal takes what is told");
    }
    if (!config.errors.empty())
        return 0;
    const BoxConfig again = read_box_config(file, defaults);
    for (const auto &[key, setting] : config.settings) {
        fuzz::require(again.settings.contains(key) && again.settings.at(key).text == setting.text,
                      key + " is read alike");
        const BoxKey *known = find_box_key(key);
        fuzz::require(known != nullptr, key + " is a key");
        for (const Write &one : known->writes(setting.text))
            if (model.find(one.path))
                fuzz::require(!model.set(one.path, {{one.parameter, one.value}}), key + " has its place in the model");
    }
    fuzz::check_model(model);
    return 0;
}

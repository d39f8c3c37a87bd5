/*
 * The settings file in the running host: applied when it starts, and taken over again when it has changed.
 */
#ifndef HOST_CONFIG_BOX_SETTINGS_H
#define HOST_CONFIG_BOX_SETTINGS_H

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/config/box_config.h"
#include "host/model/model.h"

namespace keel {

/* What the file said when it was last read, an instance for each key. */
constexpr const char *read_settings_path = "KeelHost.Setting";

/* A settings file with mistakes; all of them, one a line. */
class BoxConfigError : public std::runtime_error {
public:
    explicit BoxConfigError(const std::vector<std::string> &errors);
};

/* What the file said when it was last read stands in the model's "KeelHost.Setting" and is stored. A setting is
 * written whenever the file says something else than then, whether the host runs or starts; what the file has left as
 * it was yields to what was set in the model meanwhile (with keelctl, say), which the store brings back. */
class BoxSettings {
public:
    /* Applies the file to a model that was just loaded, before anybody watches it. An optional file need not be there.
     * Throws BoxConfigError. */
    BoxSettings(Model &model, std::string file, bool optional);
    BoxSettings(const BoxSettings &) = delete;
    BoxSettings &operator=(const BoxSettings &) = delete;

    /* Once the store has brought back what it holds: writes what the file says anew, and traces where the model has
     * another value than the file. */
    void after_store();
    /* Reads the file again and writes what it says anew. One with mistakes changes nothing; they are traced, and so is
     * what needs a restart. */
    void reload();
    /* "" when the file does not say. */
    std::string wan_mac() const;

private:
    BoxConfig read() const;
    std::vector<Write> writes_of(const std::string &key) const;
    void rename_interfaces();
    void remember();
    std::vector<std::string> changed_keys() const;
    void write(const std::vector<std::string> &keys);
    void tell_overridden() const;

    Model &model_;
    std::string file_;
    bool optional_;
    BoxDefaults defaults_;
    BoxConfig config_;
    std::map<std::string, std::string> started_with_; /* of what needs a restart */
};

} // namespace keel

#endif

/*
 * Taking over, in the running host, what another box has learned and was set to.
 */
#ifndef HOST_CONFIG_IMPORT_H
#define HOST_CONFIG_IMPORT_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/base/loop.h"
#include "host/config/carried.h"
#include "host/gateway/settings.h"
#include "host/model/model.h"

namespace keel {

/* Everything is checked before anything is touched. Then it is as if the box had started with such a store: settings
 * and options are written as by keelctl set; the identities are those of the text; the leases are added to those that
 * devices of this box have, which they keep.
 *
 * The routed mode reads its identities when it is entered. Where these differ it is therefore left, which takes the
 * mappings of all STBs away, and entered again with the new ones, all within a second or two. */
class Import {
public:
    struct Answer {
        std::vector<std::string> errors; /* then nothing was touched */
        std::vector<std::string> told;   /* what has changed, what has not and why, and what became of the STBs */
    };

    /* program is what the texts are said to be of; wan_mac, asked for whenever one is made, what the identifiers of the
     * WAN clients are counted from here, "" for not known. */
    Import(Loop &loop, Model &model, Settings &settings, std::string program, std::function<std::string()> wan_mac);
    Import(const Import &) = delete;
    Import &operator=(const Import &) = delete;
    ~Import();

    /* What keelctl export writes. */
    std::string text() const;
    /* Answers once it is done, perhaps within the call. */
    void take(const std::string &text, std::function<void(const Answer &answer)> answer);

private:
    void await_left();
    void write(bool was_left);
    void write_settings();
    void write_options();
    void write_identities();
    void write_leases();
    void write_tags();
    void tell_what_differs();
    void set(const std::string &path, const Values &values);
    void add(const std::string &parent, const std::string &key, const Values &values);
    void finish();

    Loop &loop_;
    Model &model_;
    Settings &settings_;
    std::string program_;
    std::function<std::string()> wan_mac_;
    Carried wanted_;
    Carried before_;
    std::vector<std::string> told_;
    std::function<void(const Answer &answer)> answer_; /* null while there is nothing to do */
    std::uint64_t left_ms_ = 0;
    Loop::TimerId look_ = 0;
};

} // namespace keel

#endif

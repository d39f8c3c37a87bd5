/*
 * What follows from a write to the IPTV settings.
 */
#ifndef HOST_GATEWAY_SETTINGS_H
#define HOST_GATEWAY_SETTINGS_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/model/model.h"

namespace keel {

constexpr const char *service_path = "Keel.Zephyrin";
constexpr const char *identities_path = "Keel.Zephyrin.ClientLease";
/* All pools of the LAN DHCP server. */
constexpr const char *lan_pools_path = "DHCPv4.Server.Pool";
/* The pools of the LAN DHCP server whose leases the routed mode holds. */
constexpr const char *iptv_pools[] = {"DHCPv4.Server.Pool.zep_itf", "DHCPv4.Server.Pool.zep_stb"};
/* Whether the service is enabled in the mode Routed over the Dedicated interface. */
bool is_routed(const Model &model);
/* Why an instance cannot be deleted by hand, and what to do instead: the plug-in has the identities in its memory while
 * the routed mode is on, and would go on with one that is no longer stored. "" when it can. */
std::string objection_to_deletion(const Model &model, const std::string &path);

/* Works on writes made after its construction; what was before is the state that it starts from.
 *
 * Keeps "IPTVMode" of "Keel" and "Interface" of "Keel.Zephyrin" one setting, tells the plug-in's sub-modules of changes
 * by notifications 101 (the mode is left) and 102 (the settings are in force), and has the IPTV pools of the LAN DHCP
 * server hold their leases in the routed mode, and in no other, whoever writes that they shall. The lease times that
 * the pools had before the routed mode set them are in force again when it is left. */
class Settings {
public:
    explicit Settings(Model &model);
    Settings(const Settings &) = delete;
    Settings &operator=(const Settings &) = delete;
    ~Settings();

    /* Has the plug-in's sub-modules leave the mode, and enter it again, while the settings stay as they are: what the
     * mode reads only when it is entered may be written in between. */
    void leave_mode();
    void enter_mode();

private:
    /* One of the two names of the interface setting. */
    struct Name {
        const char *path;
        const char *parameter;
        std::set<std::uint64_t> copies; /* events of copies made to it which have not been told yet */
    };

    void copy_to(Name &name, const Value &value);
    void follow_name(Name &written, Name &other, const Event &event);
    void on_event(const Event &event);
    void service_changed(const Event &event);
    void follow_pools();
    void leave_pool(const char *pool);
    void pool_was_written(const char *pool, const Event &event);
    Values lease_times(const char *pool) const;

    Model &model_;
    Model::WatchId watch_;
    std::vector<Model::WatchId> pool_watches_;
    std::uint64_t start_ = 0; /* the latest event at construction */
    Name mode_;
    Name interface_;
    Values service_;                            /* the settings as of the event being looked at */
    std::map<std::string, Values> usual_times_; /* of each pool while the mode is another one */
};

} // namespace keel

#endif

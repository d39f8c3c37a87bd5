/*
 * What follows from a write to the IPTV settings.
 */
#ifndef HOST_CORE_SETTINGS_H
#define HOST_CORE_SETTINGS_H

#include "host/core/model.h"

namespace keel {

/* Keeps "IPTVMode" of "Keel" and "Interface" of "Keel.Zephyrin" one setting, tells the plug-in's sub-modules of changes
 * by notifications 101 (the mode is left) and 102 (the settings are in force), and has the two IPTV pools of the LAN
 * DHCP server hold their leases while the mode is Routed over the Dedicated interface. */
class Settings {
public:
    explicit Settings(Model &model);
    Settings(const Settings &) = delete;
    Settings &operator=(const Settings &) = delete;
    ~Settings();

private:
    void on_event(const Event &event);
    void service_changed(const Event &event);
    void follow_holds();

    Model &model_;
    Model::WatchId watch_;
    Values service_; /* the settings as of the event being looked at */
};

} // namespace keel

#endif

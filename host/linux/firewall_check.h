/*
 * Whether the rules of the service stand in the kernel; and putting back what somebody else has taken away.
 */
#ifndef HOST_LINUX_FIREWALL_CHECK_H
#define HOST_LINUX_FIREWALL_CHECK_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/base/uv_loop.h"
#include "host/gateway/graph.h"
#include "host/linux/child.h"
#include "host/linux/event_socket.h"
#include "host/linux/firewall_rules.h"

namespace keel {

/* Looks at the rules when the kernel tells that some of them have changed, or the model that others ought to stand: a
 * command that fails changes nothing that the kernel could tell. That is at most once a second, and every few seconds
 * while one is missing; where the kernel does not tell, also once a minute.
 *
 * A rule that ought to stand and is not there, in two looks, is an instance of "Firewall.Missing". One that has stood
 * before was taken away by somebody else: that is traced, and it is put back after two seconds, but not more often than
 * once a minute, so that two that will not have each other's rules do not keep the machine busy. One that has never
 * stood is one whose command failed: it is made once, unless it is a single device's. What stands of a device's mapping
 * is taken away then, and its lease reported anew, at most once a minute, so that the plug-in makes all of it.
 *
 * While a look fails, "KeelHost.RulesError" tells why. */
class FirewallCheck {
public:
    /* The script is share/chains.sh; what iptables-restore and ebtables-restore read is written into the folder. */
    FirewallCheck(UvLoop &loop, InterfaceGraph &graph, std::string script, const std::string &folder,
                  std::function<void(std::uint32_t address)> report_lease);
    FirewallCheck(const FirewallCheck &) = delete;
    FirewallCheck &operator=(const FirewallCheck &) = delete;
    ~FirewallCheck();

    /* Looks now, makes "Firewall.Mapping" what has gone through each device's rules up to now, and calls done, also
     * when the look has failed and there is no such instance; not when it is destroyed before. */
    void count(std::function<void()> done);

private:
    struct Missing {
        FirewallRule rule;
        std::uint64_t found_ms = 0;
        std::int64_t since = 0;
        bool stood = false;
        bool tried = false;   /* to make it, which never stood */
        std::string instance; /* of "Firewall.Missing"; "" while it is not told */
    };

    void follow_model();
    void listen();
    void on_event();
    void on_model();
    void look_in(std::uint64_t milliseconds);
    void read_plan();
    void look();
    void look_if_due();
    void read_iptables(std::function<void()> next);
    void read(const std::vector<std::string> &argv, void (SavedRules::*take)(const std::string &line),
              std::function<void()> next);
    std::vector<FirewallRule> expected() const;
    void looked();
    void failed(const std::string &why);
    void tell_error(const std::string &why);
    void write_counts(const std::map<std::string, Traffic> &counted);
    void find_missing(const std::vector<FirewallRule> &expected);
    void tell();
    void put_back();
    void map_again();
    bool restore(const std::vector<FirewallRule> &rules);
    bool restore(const std::string &text, const std::vector<std::string> &argv);
    void forget(const Missing &missing);

    UvLoop &loop_;
    InterfaceGraph &graph_;
    Model &model_;
    std::string script_;
    std::string file_;
    std::unique_ptr<EventSocket> events_; /* null where the kernel does not tell of changes to the rules */
    Loop::TimerId looking_ = 0;
    std::uint64_t look_at_ms_ = 0; /* when that comes */
    std::uint64_t last_look_ms_ = 0;
    std::unique_ptr<Child> process_;
    std::vector<std::string> lines_; /* of the plan */
    std::vector<FirewallRule> planned_;
    SavedRules saved_;
    std::set<std::string> stood_; /* the keys of those expected that have stood in an earlier look */
    std::map<std::string, Missing> missing_;
    bool traced_ = false;
    bool due_ = false;                           /* a look, once the program that runs has ended */
    bool blind_ = false;                         /* the last look failed */
    std::vector<std::function<void()>> waiting_; /* for the end of the look that is on its way */
    std::vector<Model::WatchId> watches_;
    std::uint64_t next_put_back_ms_ = 0;
    std::function<void(std::uint32_t address)> report_lease_;
    std::map<std::string, std::uint64_t> next_report_ms_; /* by LAN address, of those reported in the last minute */
};

} // namespace keel

#endif

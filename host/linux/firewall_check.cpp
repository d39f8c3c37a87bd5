#include "host/linux/firewall_check.h"

#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "host/base/text_forms.h"
#include "host/base/timeline.h"
#include "host/base/trace.h"
#include "host/base/whole_file.h"
#include "host/gateway/settings.h"
#include "host/linux/bridge_rules.h"
#include "host/linux/program.h"

namespace keel {

namespace {

constexpr const char *missing_path = "Firewall.Missing";
constexpr const char *mapping_path = "Firewall.Mapping";
constexpr const char *host_path = "KeelHost";
constexpr std::uint64_t settle_ms = 100;         /* from an event to the look: a command makes several */
constexpr std::uint64_t look_every_ms = 1000;    /* at most */
constexpr std::uint64_t look_again_ms = 500;     /* whether what is missing is only on its way */
constexpr std::uint64_t look_missing_ms = 5000;  /* while something is missing */
constexpr std::uint64_t look_without_ms = 60000; /* where the kernel does not tell of changes */
constexpr std::uint64_t patience_ms = 2000;      /* before it is put back */
constexpr std::uint64_t put_back_every_ms = 60000;
constexpr int command_limit_ms = 7000; /* it waits up to 5 s for others */

const std::vector<std::string> iptables_save = {"/usr/sbin/iptables-save", "-c"};
const std::vector<std::string> ebtables_save = {"/usr/sbin/ebtables-save"};

} // namespace

FirewallCheck::FirewallCheck(UvLoop &loop, InterfaceGraph &graph, std::string script, const std::string &folder,
                             std::function<void(std::uint32_t address)> report_lease)
    : loop_(loop), graph_(graph), model_(graph.model()), script_(std::move(script)),
      file_(std::filesystem::path(folder) / "iptables.restore"), report_lease_(std::move(report_lease)) {
    listen();
    follow_model();
    read_plan();
}

FirewallCheck::~FirewallCheck() {
    for (const Model::WatchId watch : watches_)
        model_.unwatch(watch);
    loop_.cancel_timer(looking_);
    process_.reset();
    for (const auto &[key, missing] : missing_)
        forget(missing);
}

/* --------------------------------------------------------------------------------------------------- when to look */

void FirewallCheck::follow_model() {
    const auto look = [this](const Event &) { on_model(); };
    const auto look_for_stb = [this](const Event &event) {
        if (has_word(model_.text(event.path(), "Tags"), "stb")) /* of thousands of devices that come and go */
            on_model();
    };
    watches_ = {model_.watch(identities_path, look),
                model_.watch(interfaces_path, look, {{"DHCPStatus", "Flags"}, false}),
                model_.watch("Hosts.Host", look_for_stb, {{"Tags", "IPAddress", "Active"}, false})};
}

/* What is told matters not, only that something is; the next events are let come until a look is due. */
void FirewallCheck::listen() {
    const auto changed = [this] { on_event(); };
    const auto told = [this](const std::uint8_t *, std::size_t) {
        events_->rest();
        on_event();
    };
    try {
        events_ = std::make_unique<EventSocket>(
            loop_, EventSocket::Source{NETLINK_NETFILTER, {NFNLGRP_NFTABLES}, 0, "firewall"},
            EventSocket::Receiver{told, changed, changed});
    } catch (const std::runtime_error &error) {
        trace(Level::Info, "firewall",
              "the kernel does not tell of changes to the rules (%s): they are looked at once a minute", error.what());
    }
}

void FirewallCheck::on_event() {
    const std::uint64_t now = loop_.now_ms();
    look_in(std::max(now + settle_ms, last_look_ms_ + look_every_ms) - now);
}

/* Once those who follow the model have run their commands. */
void FirewallCheck::on_model() {
    const std::uint64_t now = loop_.now_ms();
    look_in(std::max(now + look_again_ms, last_look_ms_ + look_every_ms) - now);
}

/* The earlier one of two counts. */
void FirewallCheck::look_in(std::uint64_t milliseconds) {
    const std::uint64_t at = loop_.now_ms() + milliseconds;
    if (looking_ && look_at_ms_ <= at)
        return;
    loop_.cancel_timer(looking_);
    look_at_ms_ = at;
    looking_ = loop_.start_timer(milliseconds, [this] {
        looking_ = 0;
        look();
    });
}

/* -------------------------------------------------------------------------------------------------------- looking */

void FirewallCheck::read_plan() {
    lines_.clear();
    std::string error;
    process_ = Child::start(
        loop_, {script_, "plan"}, [this](const std::string &line) { lines_.push_back(line); },
        [this](int status) {
            process_.reset();
            if (status == 0)
                planned_ = planned_rules(lines_);
            if (planned_.empty())
                failed(script_ + " plan ended with status " + std::to_string(status) + " and tells no rules");
            else
                look_in(0);
            look_if_due();
        },
        &error);
    if (process_)
        process_->limit(command_limit_ms);
    else
        failed(error);
}

void FirewallCheck::look() {
    if (process_) { /* what was told came while the rules were being read: they may have been read before it */
        due_ = true;
        return;
    }
    if (planned_.empty()) {
        read_plan();
        return;
    }
    if (events_)
        events_->empty(); /* what comes from here on is another change */
    last_look_ms_ = loop_.now_ms();
    read_iptables([this] { read(ebtables_save, &SavedRules::take_of_bridge, [this] { looked(); }); });
}

/* Somebody who asks for counts again and again keeps no look from coming. */
void FirewallCheck::look_if_due() {
    if (process_ || !std::exchange(due_, false))
        return;
    const std::uint64_t now = loop_.now_ms();
    if (now >= last_look_ms_ + look_every_ms)
        look();
    else
        look_in(last_look_ms_ + look_every_ms - now);
}

void FirewallCheck::read_iptables(std::function<void()> next) {
    saved_ = {};
    read(iptables_save, &SavedRules::take, [this, next = std::move(next)] {
        if (saved_.is_whole())
            next();
        else
            failed("iptables-save has not told all");
    });
}

/* Goes on once a program has told its rules. */
void FirewallCheck::read(const std::vector<std::string> &argv, void (SavedRules::*take)(const std::string &line),
                         std::function<void()> next) {
    std::string error;
    process_ = Child::start(
        loop_, argv, [this, take](const std::string &line) { (saved_.*take)(line); },
        [this, name = argv.front(), next = std::move(next)](int status) {
            process_.reset();
            if (status == 0)
                next();
            else
                failed(name + " ended with status " + std::to_string(status));
            look_if_due();
        },
        &error);
    if (process_)
        process_->limit(command_limit_ms);
    else
        failed(error);
}

/* Traced once, until the rules can be looked at again. */
void FirewallCheck::failed(const std::string &why) {
    if (!std::exchange(blind_, true))
        trace(Level::Warning, "firewall", "whether the rules stand is not known: %s; it is tried again once a minute",
              why.c_str());
    tell_error(why);
    look_in(look_without_ms);
    write_counts({});
}

void FirewallCheck::tell_error(const std::string &why) {
    if (model_.text(host_path, "RulesError") != why)
        model_.set(host_path, {{"RulesError", why}});
}

/* In the order in which they belong. */
std::vector<FirewallRule> FirewallCheck::expected() const {
    auto all = expected_rules(planned_, graph_);
    const auto of_bridge = expected_bridge_rules(graph_);
    all.insert(all.end(), of_bridge.begin(), of_bridge.end());
    return all;
}

void FirewallCheck::looked() {
    blind_ = false;
    tell_error("");
    const auto all = expected();
    find_missing(all);
    tell();
    write_counts(traffic_of(all, saved_));
    put_back();
    map_again();
    const bool fresh = std::any_of(missing_.begin(), missing_.end(), [this](const auto &one) {
        return loop_.now_ms() - one.second.found_ms < patience_ms;
    });
    if (!missing_.empty())
        look_in(fresh ? look_again_ms : look_missing_ms);
    else if (!events_ || !events_->hears())
        look_in(look_without_ms);
}

void FirewallCheck::count(std::function<void()> done) {
    waiting_.push_back(std::move(done));
    if (process_)
        return;
    if (planned_.empty())
        read_plan();
    else
        read_iptables([this] {
            write_counts(traffic_of(expected(), saved_));
            if (blind_) /* which may be over */
                look_in(0);
        });
}

/* Only when somebody asks. */
void FirewallCheck::write_counts(const std::map<std::string, Traffic> &counted) {
    if (waiting_.empty())
        return;
    if (model_.find(mapping_path)) {
        for (const std::string &name : model_.instances(mapping_path))
            model_.remove(join_path(mapping_path, name));
        for (const auto &[address, traffic] : counted)
            model_.add(mapping_path, std::nullopt,
                       {{"Address", address},
                        {"PacketsOut", static_cast<std::int64_t>(traffic.packets_out)},
                        {"PacketsIn", static_cast<std::int64_t>(traffic.packets_in)}});
    }
    for (const auto &done : std::exchange(waiting_, {}))
        done();
}

void FirewallCheck::find_missing(const std::vector<FirewallRule> &expected) {
    std::set<std::string> keys;
    std::map<std::string, Missing> before = std::exchange(missing_, {});
    for (const FirewallRule &rule : expected) {
        const std::string key = rule.key();
        keys.insert(key);
        if (saved_.has(rule)) {
            stood_.insert(key);
            continue;
        }
        const bool stood = stood_.contains(key);
        if (!stood && !rule.certain)
            continue;
        Missing &missing = missing_[key];
        const auto known = before.find(key);
        if (known != before.end()) {
            missing = std::move(known->second);
            before.erase(known);
        } else {
            missing = {rule, loop_.now_ms(), static_cast<std::int64_t>(loop_.wall_clock_s()), stood, false, ""};
        }
    }
    for (const auto &[key, gone] : before)
        forget(gone);
    std::erase_if(stood_, [&](const std::string &key) { return !keys.contains(key); });
}

/* ------------------------------------------------------------------------------------------- telling and putting back
 */

void FirewallCheck::forget(const Missing &missing) {
    if (!missing.instance.empty())
        model_.remove(join_path(missing_path, missing.instance));
}

void FirewallCheck::tell() {
    const std::uint64_t now = loop_.now_ms();
    std::size_t taken = 0;
    const Missing *first = nullptr;
    for (auto &[key, missing] : missing_) {
        if (now - missing.found_ms < look_again_ms)
            continue;
        taken += missing.stood;
        first = first || !missing.stood ? first : &missing;
        const std::uint64_t next = std::max(next_put_back_ms_, missing.found_ms + patience_ms);
        const std::uint64_t left_s = next > now ? (next - now + 500) / 1000 : 0;
        const auto next_try = static_cast<std::int64_t>(loop_.wall_clock_s() + left_s);
        if (!model_.find(missing_path))
            continue;
        if (missing.instance.empty())
            model_.add(missing_path, std::nullopt,
                       {{"Table", missing.rule.table},
                        {"Chain", missing.rule.chain},
                        {"Rule", missing.rule.rule},
                        {"What", missing.rule.what},
                        {"Address", missing.rule.address},
                        {"Since", missing.since}},
                       &missing.instance);
        if (missing.stood)
            model_.set(join_path(missing_path, missing.instance), {{"NextTry", next_try}});
    }
    if (first && !std::exchange(traced_, true))
        trace(
            Level::Warning, "firewall",
            "%s is not in %s any more%s: somebody else changes the tables; what is missing is put back, once a minute",
            first->rule.what.c_str(), first->rule.chain.c_str(),
            taken > 1 ? (", nor are " + std::to_string(taken - 1) + " more rules").c_str() : "");
    if (missing_.empty() && std::exchange(traced_, false))
        trace(Level::Info, "firewall", "all rules are there again");
}

void FirewallCheck::put_back() {
    const std::uint64_t now = loop_.now_ms();
    std::vector<FirewallRule> rules;
    for (const FirewallRule &rule : expected())
        if (missing_.contains(rule.key()))
            rules.push_back(rule);
    std::erase_if(rules, [&](const FirewallRule &rule) {
        const Missing &missing = missing_.at(rule.key());
        return !(missing.stood || (!rule.is_of_device() && !missing.tried)) || now - missing.found_ms < patience_ms;
    });
    if (rules.empty() || now < next_put_back_ms_)
        return;
    next_put_back_ms_ = now + put_back_every_ms;
    for (const FirewallRule &rule : rules)
        missing_.at(rule.key()).tried = true;
    if (restore(rules))
        look_in(0);
}

/* The plug-in remembers no mapping of which a command has failed, and makes it when the lease is reported. */
void FirewallCheck::map_again() {
    const std::uint64_t now = loop_.now_ms();
    std::erase_if(next_report_ms_, [now](const auto &one) { return one.second <= now; });
    std::map<std::string, std::string> never_made; /* LAN address -> what is missing */
    for (const auto &[key, missing] : missing_)
        if (!missing.stood && missing.rule.is_of_mapping() && now - missing.found_ms >= patience_ms &&
            !next_report_ms_.contains(missing.rule.address))
            never_made[missing.rule.address] = missing.rule.what;
    for (const auto &[address, what] : never_made) {
        next_report_ms_[address] = now + put_back_every_ms;
        std::vector<FirewallRule> halves;
        for (const FirewallRule &rule : expected())
            if (rule.is_of_mapping() && rule.address == address && saved_.has(rule))
                halves.push_back(rule);
        if (!restore(removal_text(halves), {"/usr/sbin/iptables-restore", "--noflush", "-w", "5", file_}))
            continue;
        for (const FirewallRule &rule : halves)
            stood_.erase(rule.key());
        trace(Level::Warning, "firewall", "%s could not be made: the lease is reported anew, so that it is tried again",
              what.c_str());
        report_lease_(ipv4_or_none(address));
    }
}

/* Before the loop turns: the plug-in's own commands come before or after it, not in between. */
bool FirewallCheck::restore(const std::vector<FirewallRule> &rules) {
    const bool done =
        restore(restore_text(rules, saved_, false), {"/usr/sbin/iptables-restore", "--noflush", "-w", "5", file_});
    const bool bridge_done = restore(restore_text(rules, saved_, true), /* which reads no file but its input */
                                     {"/bin/sh", "-c", "exec /usr/sbin/ebtables-restore --noflush <\"$0\"", file_});
    Timeline::instance().note(TimelineEvent::Kind::Rule, "", done && bridge_done ? "done" : "failed",
                              "restore --noflush: " + std::to_string(rules.size()) + " rules are put back");
    return done && bridge_done;
}

bool FirewallCheck::restore(const std::string &text, const std::vector<std::string> &argv) {
    if (text.empty())
        return true;
    std::string error;
    std::optional<int> status;
    if (write_whole_file(file_, text, &error))
        status = run_and_wait(argv, command_limit_ms, &error);
    if (status == 0)
        return true;
    trace(Level::Error, "firewall", "the rules cannot be put back: %s; it is tried again",
          status ? ("what they are restored with ended with status " + std::to_string(*status)).c_str()
                 : error.c_str());
    return false;
}

} // namespace keel

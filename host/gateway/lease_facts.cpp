#include "host/gateway/lease_facts.h"

#include <algorithm>
#include <utility>

#include "host/base/text_forms.h"
#include "host/gateway/settings.h"

namespace keel {

namespace {

constexpr const char *stb_pool = "zep_stb";

std::string text_in(const Node &lease, const char *parameter) {
    const Parameter *found = lease.parameter(parameter);
    return found && found->present ? to_text(found->value) : std::string();
}

std::int64_t written_at(const Node &lease) {
    const Parameter *found = lease.parameter("Written");
    const auto *time = found && found->present ? std::get_if<std::int64_t>(&found->value) : nullptr;
    return time ? *time : 0;
}

/* 0 for what is no MAC address. */
std::uint64_t number_of(const std::string &mac) {
    std::uint64_t number = 0;
    for (const std::uint8_t byte : parse_mac(mac).value_or(HardwareAddress{}))
        number = number << 8 | byte;
    return number;
}

} // namespace

bool is_of_lease(const Event &event) {
    return event.steps.size() == 8 && event.steps[6] == "Lease" && event.steps[4] == "Rule" &&
           event.steps[2] == "Pool" && event.steps[1] == "Server" && event.steps[0] == "DHCPv4";
}

LeaseFacts::LeaseFacts(Model &model, OnChange on_change) : model_(model) {
    for (const std::string &pool : model_.instances(lan_pools_path)) {
        const std::string rules = join_path(lan_pools_path, pool) + ".Rule";
        for (const std::string &rule : model_.instances(rules))
            if (const Node *leases = model_.find(join_path(rules, rule) + ".Lease"))
                for (const Node &lease : leases->children)
                    keep(lease);
    }
    model_.observe(this, [this](const Event &event) { observe(event); });
    watch_ = model_.watch(lan_pools_path, [change = std::move(on_change), this](const Event &event) {
        if (!is_of_lease(event) || event.kind == Event::Kind::Deleted)
            return;
        const std::string mac = model_.text(event.path(), "MACAddress");
        if (!mac.empty())
            change(mac);
    });
}

LeaseFacts::~LeaseFacts() {
    model_.observe(this, nullptr);
    model_.unwatch(watch_);
}

void LeaseFacts::keep(const Node &lease) {
    if (const std::uint64_t mac = number_of(text_in(lease, "MACAddress")))
        leases_.emplace(mac, Known{lease.name, &lease});
}

void LeaseFacts::forget(const std::string &mac, const std::string &id) {
    const auto [first, end] = leases_.equal_range(number_of(mac));
    const auto found = std::find_if(first, end, [&](const auto &one) { return one.second.id == id; });
    if (found != end)
        leases_.erase(found);
}

void LeaseFacts::observe(const Event &event) {
    if (!is_of_lease(event))
        return;
    const Values &old = event.kind == Event::Kind::Deleted ? event.values : event.before;
    const auto mac = old.find("MACAddress");
    if (event.kind == Event::Kind::Changed && mac == old.end())
        return;
    if (mac != old.end())
        forget(to_text(mac->second), event.steps.back());
    if (event.kind != Event::Kind::Deleted)
        if (const Node *lease = model_.find(event.path()))
            keep(*lease);
}

std::optional<LeaseFacts::Facts> LeaseFacts::of(const std::string &mac) const {
    const auto [first, end] = leases_.equal_range(number_of(mac));
    if (first == end)
        return std::nullopt;
    const auto found = std::max_element(first, end, [](const auto &one, const auto &other) {
        return written_at(*one.second.lease) < written_at(*other.second.lease);
    });
    const Node &lease = *found->second.lease;
    if (text_in(lease, "OnHold") == "true")
        return std::nullopt;
    const Node *pool = lease.parent->parent->parent->parent; /* Lease, the rule, Rule, the pool */
    return Facts{text_in(lease, "IPAddress"), text_in(lease, "HostName"), text_in(lease, "VendorClass"),
                 pool->name == stb_pool};
}

} // namespace keel

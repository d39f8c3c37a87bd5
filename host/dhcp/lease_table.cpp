#include "host/dhcp/lease_table.h"

#include <algorithm>

#include "host/base/text_forms.h"

namespace keel {

namespace {

std::uint32_t address_in(const Values &values) {
    const auto found = values.find("IPAddress");
    return found == values.end() ? 0 : ipv4_or_none(to_text(found->second));
}

bool is_acknowledged(const Values &values) {
    const auto found = values.find("Acknowledged");
    return found != values.end() && found->second == Value(true);
}

template <typename Map, typename Key, typename Lease> void take_out(Map &map, const Key &key, const Lease *lease) {
    const auto [first, end] = map.equal_range(key);
    const auto found = std::find_if(first, end, [lease](const auto &entry) { return entry.second == lease; });
    if (found != end)
        map.erase(found);
}

} // namespace

LeaseTable::LeaseTable(Model &model) : model_(model) {
    for (const std::string &pool : model_.instances(lan_pools_path)) {
        const std::string rules = join_path(lan_pools_path, pool) + ".Rule";
        for (const std::string &rule : model_.instances(rules))
            if (const Node *leases = model_.find(join_path(rules, rule) + ".Lease"))
                for (const Node &lease : leases->children)
                    add(lease.steps(), lease.values());
    }
    model_.observe(this, [this](const Event &event) { observe(event); });
}

LeaseTable::~LeaseTable() {
    model_.observe(this, nullptr);
}

void LeaseTable::observe(const Event &event) {
    if (!is_of_lease(event))
        return;
    const std::string path = event.path();
    if (event.kind == Event::Kind::Added)
        add(event.steps, event.values);
    else if (event.kind == Event::Kind::Deleted)
        remove(path);
    else if (event.kind == Event::Kind::Changed && event.values.contains("IPAddress"))
        set_address(leases_.at(path), address_in(event.values));
    if (event.kind == Event::Kind::Changed)
        leases_.at(path).acknowledged |= is_acknowledged(event.values);
}

void LeaseTable::add(const std::vector<std::string> &steps, const Values &values) {
    std::string path;
    for (const std::string &step : steps)
        path = join_path(path, step);
    Lease &lease = leases_[path];
    lease.place = {steps[3], steps[5]};
    lease.id = steps[7];
    lease.acknowledged = is_acknowledged(values);
    lease.number = ++last_number_;
    by_id_.emplace(lease.id, &lease);
    set_address(lease, address_in(values));
}

void LeaseTable::remove(const std::string &path) {
    const auto found = leases_.find(path);
    Lease &lease = found->second;
    set_address(lease, 0);
    take_out(by_id_, lease.id, &lease);
    if (lease.end_ms)
        by_end_.erase({*lease.end_ms, lease.number});
    leases_.erase(found);
}

void LeaseTable::set_address(Lease &lease, std::uint32_t address) {
    take_out(by_address_, lease.address, &lease);
    if (lease.address != 0 && !is_leased(lease.address)) {
        if (lease.acknowledged)
            freed_[lease.address] = ++last_freed_;
        unused_.emplace(freed(lease.address), lease.address);
    }
    lease.address = address;
    if (address == 0)
        return;
    unused_.erase({freed(address), address});
    by_address_.emplace(address, &lease);
}

bool LeaseTable::is_leased(std::uint32_t address) const {
    return by_address_.contains(address);
}

std::string LeaseTable::lease_with(std::uint32_t address) const {
    const auto found = by_address_.find(address);
    return found == by_address_.end() ? std::string() : path_of(*found->second);
}

std::uint64_t LeaseTable::freed(std::uint32_t address) const {
    const auto found = freed_.find(address);
    return found == freed_.end() ? 0 : found->second;
}

std::vector<std::pair<std::string, LeasePlace>> LeaseTable::leases_of(const std::string &id) const {
    std::vector<std::pair<std::string, LeasePlace>> found;
    const auto [first, end] = by_id_.equal_range(id);
    for (auto at = first; at != end; ++at)
        found.emplace_back(path_of(*at->second), at->second->place);
    return found;
}

std::vector<std::string> LeaseTable::all() const {
    std::vector<std::string> paths;
    paths.reserve(leases_.size());
    for (const auto &[path, lease] : leases_)
        paths.push_back(path);
    return paths;
}

void LeaseTable::set_end(const std::string &path, std::uint64_t end_ms) {
    Lease &lease = leases_.at(path);
    if (lease.end_ms)
        by_end_.erase({*lease.end_ms, lease.number});
    lease.end_ms = end_ms;
    by_end_[{end_ms, lease.number}] = &lease;
}

std::optional<std::uint64_t> LeaseTable::end_of(const std::string &path) const {
    const auto found = leases_.find(path);
    return found == leases_.end() ? std::nullopt : found->second.end_ms;
}

std::optional<std::pair<std::uint64_t, std::string>> LeaseTable::first_end() const {
    if (by_end_.empty())
        return std::nullopt;
    const auto &[end, lease] = *by_end_.begin();
    return std::pair(end.first, path_of(*lease));
}

std::string LeaseTable::path_of(const Lease &lease) {
    return std::string(lan_pools_path) + "." + lease.place.pool + ".Rule." + lease.place.rule + ".Lease." + lease.id;
}

} // namespace keel

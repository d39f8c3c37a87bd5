#include "host/dhcp/mapped_addresses.h"

#include <algorithm>

#include "host/base/text_forms.h"
#include "host/gateway/settings.h"

namespace keel {

namespace {

constexpr std::size_t longest_name = 35;
} // namespace

std::string name_in_records(const std::string &device) {
    return device.substr(0, longest_name);
}

bool is_of_mapped_device(const Event &event) {
    return event.steps.size() == 6 && event.steps[4] == "ServerLease" && event.steps[2] == "ClientLease" &&
           event.steps[1] == "Zephyrin" && event.steps[0] == "Keel";
}

std::string record_in_another(const Model &model, const std::string &identity, const std::string &device) {
    for (const std::string &other : model.instances(identities_path)) {
        std::string record = join_path(join_path(identities_path, other) + ".ServerLease", device);
        if (other != identity && model.find(record))
            return record;
    }
    return "";
}

MappedAddresses::MappedAddresses(Model &model) : model_(model) {
    for (const std::string &identity : model_.instances(identities_path)) {
        const std::string devices = join_path(identities_path, identity) + ".ServerLease";
        for (const std::string &device : model_.instances(devices))
            set(device, model_.text(join_path(devices, device), "IPAddress"));
    }
    model_.observe(this, [this](const Event &event) { observe(event); });
}

MappedAddresses::~MappedAddresses() {
    model_.observe(this, nullptr);
}

std::uint32_t MappedAddresses::of(const std::string &device) const {
    const auto found = by_device_.find(name_in_records(device));
    return found == by_device_.end() ? 0 : found->second;
}

bool MappedAddresses::is_anothers(std::uint32_t address, const std::string &device) const {
    const auto [first, end] = by_address_.equal_range(address);
    return std::any_of(first, end, [&](const auto &one) { return one.second != name_in_records(device); });
}

void MappedAddresses::observe(const Event &event) {
    if (!is_of_mapped_device(event))
        return;
    const auto address = event.values.find("IPAddress");
    if (event.kind == Event::Kind::Deleted)
        set(event.steps[5], model_.text(record_in_another(model_, event.steps[3], event.steps[5]), "IPAddress"));
    else if (address != event.values.end())
        set(event.steps[5], to_text(address->second));
}

void MappedAddresses::set(const std::string &device, const std::string &address) {
    if (const auto found = by_device_.find(device); found != by_device_.end()) {
        const auto [first, end] = by_address_.equal_range(found->second);
        by_address_.erase(std::find_if(first, end, [&](const auto &one) { return one.second == device; }));
        by_device_.erase(found);
    }
    if (const auto parsed = parse_ipv4(address); parsed && *parsed != 0) {
        by_device_[device] = *parsed;
        by_address_.emplace(*parsed, device);
    }
}

} // namespace keel

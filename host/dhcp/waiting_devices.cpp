#include "host/dhcp/waiting_devices.h"

#include <array>

#include "host/base/trace.h"

namespace keel {

namespace {

constexpr const char *waiting_path = "DHCPv4.Server.Waiting";
constexpr std::array<std::size_t, 2> most_waiting = {64, 1024}; /* without a lease, and with one */
constexpr std::uint64_t silent_ms = 60000;
constexpr std::size_t longest_text = 64;
constexpr std::size_t reports_a_minute = 8; /* behind one port */
constexpr std::uint64_t minute_ms = 60000;

std::string path_of(const std::string &id) {
    return join_path(waiting_path, id);
}

std::string option_numbers(const Bytes &options) {
    std::string words;
    for (const std::uint8_t option : options)
        words += (words.empty() ? "" : " ") + std::to_string(option);
    return words;
}

} // namespace

WaitingDevices::~WaitingDevices() {
    loop_.cancel_timer(forgetting_);
    while (!devices_.empty())
        erase(std::string(devices_.begin()->first));
}

WaitingDevice *WaitingDevices::find(const std::string &id) {
    const auto found = devices_.find(id);
    return found == devices_.end() ? nullptr : &found->second;
}

WaitingDevice *WaitingDevices::keep(const std::string &id, const std::string &lease, bool reported,
                                    const DhcpMessage &message) {
    WaitingDevice *device = find(id);
    if (!device || device->reported != reported) {
        if (waiting_[reported] >= most_waiting[reported])
            return nullptr;
        if (device)
            --waiting_[device->reported];
        ++waiting_[reported];
        device = &devices_[id];
        loop_.cancel_timer(device->probe);
        loop_.cancel_timer(device->look);
        *device = {};
    }
    device->lease = lease;
    device->reported = reported;
    device->message = message;
    device->asked_ms = loop_.now_ms();
    if (!reported && forgetting_ == 0)
        forgetting_ = loop_.start_timer(silent_ms, [this] { forget_silent(); });
    return device;
}

void WaitingDevices::because(const std::string &id, const std::string &reason, const std::string &port) {
    WaitingDevice *device = find(id);
    if (!device)
        return;
    device->told = true;
    const std::string path = path_of(id);
    if (!model_.find(path))
        model_.add(waiting_path, id,
                   {{"MACAddress", format_mac(device->message.hardware.data())},
                    {"Since", static_cast<std::int64_t>(loop_.wall_clock_s())},
                    {"VendorClass", printable_text(device->message.vendor_class, longest_text)},
                    {"HostName", printable_text(device->message.host_name, longest_text)},
                    {"RequestedOptions", option_numbers(device->message.wanted_options)}});
    model_.set(path, {{"Because", reason}, {"Port", port}, {"Lease", device->reported ? device->lease : ""}});
}

void WaitingDevices::erase(const std::string &id) {
    const auto found = devices_.find(id);
    if (found == devices_.end())
        return;
    loop_.cancel_timer(found->second.probe);
    loop_.cancel_timer(found->second.look);
    --waiting_[found->second.reported];
    devices_.erase(found);
    if (model_.find(path_of(id)))
        model_.remove(path_of(id));
}

void WaitingDevices::forget_silent() {
    forgetting_ = 0;
    const std::uint64_t now = loop_.now_ms();
    for (auto at = devices_.begin(); at != devices_.end();) {
        const auto &[id, device] = *at++;
        if (!device.reported && now - device.asked_ms >= silent_ms)
            erase(std::string(id));
    }
    if (waiting_[false] != 0)
        forgetting_ = loop_.start_timer(silent_ms, [this] { forget_silent(); });
}

bool ReportLimit::is_past(std::uint64_t time_ms) const {
    return time_ms + minute_ms <= loop_.now_ms();
}

bool ReportLimit::begins(std::optional<std::uint64_t> &refused_ms) const {
    const bool first = !refused_ms || is_past(*refused_ms);
    refused_ms = loop_.now_ms();
    return first;
}

bool ReportLimit::takes(const std::string &port, const std::string &id) {
    for (auto &[name, at] : ports_)
        std::erase_if(at.reported_ms, [&](const auto &one) { return is_past(one.second); });
    std::erase_if(ports_, [&](const auto &one) {
        const Port &at = one.second;
        return at.reported_ms.empty() && (!at.refused_ms || is_past(*at.refused_ms));
    });
    Port &at = ports_[port];
    if (at.reported_ms.contains(id) || at.reported_ms.size() < reports_a_minute) {
        at.reported_ms[id] = loop_.now_ms();
        return true;
    }
    if (begins(at.refused_ms))
        trace(Level::Warning, "lan",
              "more than %zu new devices in a minute behind %s: the others wait; look what is plugged in there",
              reports_a_minute, port.c_str());
    return false;
}

void ReportLimit::refuse_unseen(const std::string &mac) {
    if (begins(unseen_ms_))
        trace(Level::Warning, "lan",
              "%s asks for a lease, but was not seen behind a port of the LAN: it waits, and so do others like it",
              mac.c_str());
}

} // namespace keel

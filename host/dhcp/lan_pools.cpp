#include "host/dhcp/lan_pools.h"

#include <algorithm>

namespace keel {

namespace {

/* Steps of paths: "DHCPv4.Server.Pool.NAME.Rule.NUMBER.Lease.ID". */
constexpr std::size_t pool_step = 2;
constexpr std::size_t lease_step = 6;

/* Leases come and go all the time and change nothing here. */
bool concerns_pools(const Event &event) {
    const auto &steps = event.steps;
    if (steps.size() < pool_step || steps[0] != "DHCPv4" || steps[1] != "Server")
        return false;
    if (steps.size() == pool_step)
        return true;
    return steps[pool_step] == "Pool" && (steps.size() <= lease_step || steps[lease_step] != "Lease");
}

std::uint32_t number_in(const Model &model, const std::string &path, const char *parameter) {
    return static_cast<std::uint32_t>(model.integer(path, parameter));
}

} // namespace

std::uint32_t LanPool::lease_time(std::uint32_t asked_s) const {
    return std::clamp(asked_s ? asked_s : usual_s, shortest_s, std::max(shortest_s, longest_s));
}

LanPools::LanPools(Model &model) : model_(model) {
    model_.observe(this, [this](const Event &event) { stale_ = stale_ || concerns_pools(event); });
}

LanPools::~LanPools() {
    model_.observe(this, nullptr);
}

const std::vector<LanPool> &LanPools::all() {
    if (stale_)
        read();
    return pools_;
}

const LanRule *LanPools::rule(const std::string &pool, const std::string &number) {
    for (const LanPool &one : all())
        if (one.name == pool)
            for (const LanRule &rule : one.rules)
                if (rule.number == number)
                    return &rule;
    return nullptr;
}

bool LanPools::is_own(std::uint32_t address) {
    const auto &pools = all();
    return std::any_of(pools.begin(), pools.end(),
                       [address](const LanPool &pool) { return pool.router == address || pool.server == address; });
}

std::uint32_t LanPools::link_of(std::uint32_t relay, std::uint32_t client) {
    if (relay != 0 || client == 0)
        return relay;
    const auto &pools = all();
    const bool behind_relay = std::any_of(pools.begin(), pools.end(), [&](const LanPool &pool) {
        return pool.has_in_subnet(client) && !pool.has_in_subnet(pool.server);
    });
    return behind_relay ? client : 0;
}

void LanPools::read() {
    stale_ = false;
    pools_.clear();
    if (!model_.boolean(lan_server_path, "Enable"))
        return;
    for (const std::string &name : model_.instances(lan_pools_path))
        if (model_.boolean(join_path(lan_pools_path, name), "Enable"))
            pools_.push_back(read_pool(name));
    for (LanPool &pool : pools_)
        for (LanRule &rule : pool.rules)
            rule.pool = &pool;
}

LanPool LanPools::read_pool(const std::string &name) const {
    LanPool pool;
    pool.name = name;
    pool.path = join_path(lan_pools_path, name);
    pool.on_hold = model_.boolean(pool.path, "LeasesOnHold");
    pool.shortest_s = number_in(model_, pool.path, "MinLeaseTime");
    pool.usual_s = number_in(model_, pool.path, "LeaseTime");
    pool.longest_s = number_in(model_, pool.path, "MaxLeaseTime");
    pool.mask = ipv4_or_none(model_.text(pool.path, "SubnetMask"));
    pool.router = ipv4_or_none(model_.text(pool.path, "Router"));
    pool.server = ipv4_or_none(model_.text(pool.path, "Server"));
    if (pool.server == 0)
        pool.server = pool.router;
    for (const std::string &option : model_.instances(pool.path + ".Option")) {
        const std::string path = pool.path + ".Option." + option;
        const std::int64_t tag = model_.integer(path, "Tag");
        const auto value = parse_hex(model_.text(path, "Value"));
        if (value && tag > 0 && tag < 255 && model_.boolean(path, "Enable") &&
            std::any_of(value->begin(), value->end(), [](std::uint8_t byte) { return byte != 0; }))
            pool.options[static_cast<std::uint8_t>(tag)] = *value;
    }
    for (const std::string &number : model_.instances(pool.path + ".Rule")) {
        const std::string path = pool.path + ".Rule." + number;
        pool.rules.push_back({nullptr, number, path, model_.text(path, "VendorClass"),
                              ipv4_or_none(model_.text(path, "MinAddress")),
                              ipv4_or_none(model_.text(path, "MaxAddress"))});
    }
    return pool;
}

} // namespace keel

#include "host/dhcp/forgotten_devices.h"

#include "host/dhcp/mapped_addresses.h"
#include "host/gateway/settings.h"

namespace keel {

ForgottenDevices::ForgottenDevices(Model &model) : model_(model) {
    watch_ = model_.watch(identities_path, [this](const Event &event) {
        if (event.kind == Event::Kind::Deleted && is_of_mapped_device(event) &&
            record_in_another(model_, event.steps[3], event.steps[5]).empty())
            hold(event.steps.back());
    });
}

ForgottenDevices::~ForgottenDevices() {
    model_.unwatch(watch_);
}

void ForgottenDevices::hold(const std::string &device) {
    for (const std::string &name : model_.instances(lan_pools_path)) {
        const std::string pool = join_path(lan_pools_path, name);
        if (!model_.boolean(pool, "LeasesOnHold"))
            continue;
        for (const std::string &rule : model_.instances(pool + ".Rule")) {
            const std::string leases = join_path(pool + ".Rule", rule) + ".Lease";
            for (const std::string &lease : model_.instances(leases))
                if (name_in_records(lease) == device)
                    model_.set(join_path(leases, lease), {{"OnHold", true}});
        }
    }
}

} // namespace keel

#include "host/gateway/wan_troubles.h"

#include "host/gateway/graph.h"

namespace keel {

namespace {

constexpr const char *exchanges_path = "DHCPv4.Client";

bool became(const Event &event, const char *parameter, const char *value) {
    const auto found = event.values.find(parameter);
    return found != event.values.end() && found->second == Value{std::string(value)};
}

} // namespace

WanTroubles::WanTroubles(Loop &loop, Model &model)
    : loop_(loop), model_(model),
      exchanges_(model.watch(exchanges_path, [this](const Event &event) { on_exchange(event); },
                             {{"Sent", "Answered"}, false})),
      interfaces_(model.watch(interfaces_path, [this](const Event &event) { on_interface(event); },
                              {{"DHCPStatus", "LastConnectionError"}, false})) {}

WanTroubles::~WanTroubles() {
    model_.unwatch(exchanges_);
    model_.unwatch(interfaces_);
}

void WanTroubles::on_exchange(const Event &event) {
    if (event.steps.size() != 3 || event.kind == Event::Kind::Deleted)
        return;
    if (event.values.contains("Sent") && event.values.at("Sent") != Value{std::int64_t{0}})
        count(event.path(), "Unanswered", "UnansweredSince");
    if (event.values.contains("Answered") && event.values.at("Answered") != Value{std::int64_t{0}})
        reset(event.path(), "Unanswered", "UnansweredSince");
}

/* A refusal is told anew each time that there is one, also when the last error was one already. */
void WanTroubles::on_interface(const Event &event) {
    if (event.steps.size() != 3 || event.kind != Event::Kind::Changed)
        return;
    const std::string client = join_path(exchanges_path, event.steps[2]);
    if (became(event, "LastConnectionError", "RemoteNack"))
        count(client, "Refusals", "RefusedSince");
    if (became(event, "DHCPStatus", "Bound"))
        reset(client, "Refusals", "RefusedSince");
}

void WanTroubles::count(const std::string &client, const char *counter, const char *since) {
    const std::int64_t counted = model_.integer(client, counter);
    Values values{{counter, counted + 1}};
    if (counted == 0)
        values[since] = static_cast<std::int64_t>(loop_.wall_clock_s());
    if (model_.find(client))
        model_.set(client, values);
}

void WanTroubles::reset(const std::string &client, const char *counter, const char *since) {
    if (model_.find(client))
        model_.set(client, {{counter, std::int64_t{0}}, {since, std::int64_t{0}}});
}

} // namespace keel

/* What the timeline keeps of an STB's life, and of a flood. */
#include "tests/sim_gateway.h"

#include "host/base/timeline.h"
#include "host/gateway/history.h"

namespace keel {

class TimelineTest : public SimGateway {
protected:
    TimelineTest() { Timeline::instance().clear(); }
    ~TimelineTest() override { history.reset(); }

    void begin() {
        build();
        history = std::make_unique<History>(*loop, *model);
        load_plugin();
        Timeline::instance().clear();
    }

    /* The events of some kinds, "kind what text" each. */
    static std::vector<std::string> told(const std::string &kinds) {
        std::vector<std::string> lines;
        for (const TimelineEvent &event : Timeline::instance().events())
            if (has_word(kinds, kind_name(event.kind)))
                lines.push_back(std::string(kind_name(event.kind)) + " " + event.what +
                                (event.text.empty() ? "" : " " + event.text));
        return lines;
    }

    std::unique_ptr<History> history;
};

using Lines = std::vector<std::string>;

TEST_F(TimelineTest, AnStbsLifeIsToldInOrder) {
    begin();
    wan->online = false;
    SimDevice &stb = device(1);
    stb.start();
    loop->advance(1 * second);
    const std::string address = model->text(lease_path(stb), "IPAddress");
    EXPECT_EQ(told("lan lease state"), (Lines{"lan DISCOVER", "lease held " + address, "state held dark"}));
    loop->advance(68 * second); /* nobody answers: a short lease */
    EXPECT_EQ(told("state"), (Lines{"state held dark", "state stop-gap held"}));
    wan->online = true;
    loop->advance(150 * second);
    EXPECT_EQ(told("state").back(), "state served stop-gap");
    wan->online = false;
    loop->advance(3700 * second); /* its lease ends, and its address stays in force */
    EXPECT_EQ(told("state").back(), "state served dark");
    wan->online = true;
    loop->advance(1900 * second); /* it is asked again */
    EXPECT_EQ(told("route"),
              (Lines{"route Enabled 10.60.0.0/24 via 10.20.0.1", "route Enabled 10.61.0.0/16 via 10.20.0.1"}));

    Timeline::instance().clear();
    std::string missing;
    ASSERT_FALSE(model->add("Firewall.Missing", std::nullopt, {{"Address", address}}, &missing));
    loop->advance(1 * second);
    ASSERT_FALSE(model->remove("Firewall.Missing." + missing));
    loop->advance(1 * second);
    EXPECT_EQ(told("state"), (Lines{"state dark served", "state served dark"})) << "somebody takes its rules away";

    Timeline::instance().clear();
    kernel->set_link("eth1.20", false);
    loop->advance(1 * second);
    EXPECT_EQ(told("state"), Lines{"state dark served"}) << "it has its lease, and no way to the operator";
    kernel->set_link("eth1.20", true);
    loop->advance(5 * second);
    stb.leave();
    loop->advance(1 * second);
    EXPECT_EQ(told("state lease"),
              (Lines{"state dark served", "state served dark", "lease gone " + address, "state dark served"}));
    EXPECT_EQ(told("lan").back(), "lan RELEASE " + address);
    set("Keel.Zephyrin", {{"Mode", std::string("Bridged")}});
    EXPECT_EQ(told("mode"), Lines{"mode Mode Bridged"});

    for (const TimelineEvent &event : Timeline::instance().events())
        EXPECT_TRUE(event.kind != TimelineEvent::Kind::LanDhcp || event.who == stb.mac());
}

TEST_F(TimelineTest, ARestartTellsNothingOfWhatWasServedAlready) {
    begin();
    serve(1);
    EXPECT_EQ(told("state").back(), "state served held");
    history.reset();
    power_cut();
    build();
    Timeline::instance().clear();
    history = std::make_unique<History>(*loop, *model);
    loop->run_until_idle();
    EXPECT_EQ(told("state lease"), Lines{});
    load_plugin();
    loop->advance(5 * second);
    EXPECT_EQ(told("state").back().substr(0, 12), "state served");
}

TEST_F(TimelineTest, WhoIsNotLetInIsToldWithTheReason) {
    begin();
    SimDevice &stranger = device(2);
    stranger.port = "";
    stranger.start();
    loop->advance(1 * second);
    EXPECT_EQ(told("refused state"), Lines{"refused refused its MAC address was not seen behind a port of the LAN"});
}

TEST_F(TimelineTest, AFloodDrivesOutNothingButItself) {
    Timeline &timeline = Timeline::instance();
    timeline.note(TimelineEvent::Kind::Mode, "", "Mode", "Routed");
    for (int i = 0; i < 5000; ++i)
        timeline.note(TimelineEvent::Kind::LanDhcp, "02:00:00:00:00:01", "DISCOVER", std::string(1000, 'x'),
                      Bytes(1000));
    for (int i = 0; i < 1000; ++i)
        timeline.note(TimelineEvent::Kind::Stream, "239.1.2.3", std::to_string(i), "packets per second");
    auto events = timeline.events();
    ASSERT_EQ(events.size(), 513U);
    events.resize(257);
    EXPECT_EQ(events.front().kind, TimelineEvent::Kind::Mode);
    EXPECT_EQ(events.back().number - events[1].number, 255U) << "the latest ones";
    EXPECT_EQ(events.back().text.size() + events.back().options.size(), 656U);
}

} // namespace keel

/* What the journal is sent, and what happens while it takes nothing. */
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "host/base/journal.h"
#include "host/base/trace_form.h"

namespace keel {

class JournalTest : public testing::Test {
protected:
    JournalTest() : path(std::filesystem::temp_directory_path() / ("journal-" + std::to_string(getpid()))) {}
    ~JournalTest() override { close_journal(); }

    void open_journal() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, path.size());
        reader = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        ASSERT_EQ(bind(reader, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    void close_journal() {
        if (reader >= 0)
            close(reader);
        reader = -1;
        std::filesystem::remove(path);
    }
    std::string entry() const {
        char buffer[65536];
        const auto size = recv(reader, buffer, sizeof buffer, 0);
        return size < 0 ? "none" : std::string(buffer, static_cast<std::size_t>(size));
    }

    const std::string path;
    int reader = -1;
};

TEST_F(JournalTest, EntriesHaveTheirFields) {
    open_journal();
    Journal journal(path);
    EXPECT_TRUE(journal.write(4, "lan", "02:00:00:00:00:01 has the address of 02:00:00:00:00:0a"));
    EXPECT_EQ(entry(), "MESSAGE=lan: 02:00:00:00:00:01 has the address of 02:00:00:00:00:0a\nPRIORITY=4\n"
                       "SYSLOG_IDENTIFIER=keelhost\nZONE=lan\nSTB=02:00:00:00:00:01\nSTB=02:00:00:00:00:0A\n");
    EXPECT_TRUE(journal.write(6, "host", "the MAC address of eth1.20 is taken, 02:00:00:00:00:01"));
    EXPECT_EQ(entry().find("STB="), std::string::npos) << "it is the gateway's own";
    EXPECT_TRUE(journal.write(6, "", "two\nPRIORITY=0"));
    EXPECT_EQ(entry(), std::string("MESSAGE\n\x0e\0\0\0\0\0\0\0two\nPRIORITY=0\nPRIORITY=6\n", 42) +
                           "SYSLOG_IDENTIFIER=keelhost\n")
        << "what is told forges no field";
}

TEST_F(JournalTest, OneThatTakesNothingIsTriedAgain) {
    Journal journal(path);
    EXPECT_FALSE(journal.write(6, "host", "nobody listens"));
    open_journal();
    EXPECT_TRUE(journal.write(6, "host", "there it is"));
    EXPECT_FALSE(journal.write(6, "host", std::string(std::size_t{8} << 20, 'x'))) << "too long for a datagram";
    EXPECT_TRUE(journal.write(6, "host", "short"));
    bool full = false; /* a journal that does not read must not hold the loop */
    for (int i = 0; i < 100000 && !full; ++i)
        full = !journal.write(6, "host", "more");
    EXPECT_TRUE(full);
    close_journal();
    open_journal();
    EXPECT_TRUE(journal.write(6, "host", "another journal")) << "it was started again";
}

TEST_F(JournalTest, APathThatIsTooLongIsNone) {
    EXPECT_FALSE(Journal(std::string(200, 'x')).write(6, "host", "text"));
}

TEST(TraceForm, ZoneAndLevelStandOnceInALine) {
    setenv("TZ", "UTC", 1);
    tzset();
    const struct {
        const char *zone;
        const char *text;
        const char *line;
    } cases[] = {{"routed", "routed  - [i]on - (f@a.cpp:1)", "2026-03-01 12:05:09.020 ! routed: on - (f@a.cpp:1)"},
                 {"ip_route", "ip_rout - [x]asprintf failed", "2026-03-01 12:05:09.020 ! ip_route: asprintf failed"},
                 {"routed", "wanmode - [i]on", "2026-03-01 12:05:09.020 ! routed: wanmode - [i]on"},
                 {"routed", "routed  - [", "2026-03-01 12:05:09.020 ! routed: routed  - ["},
                 {"", "up", "2026-03-01 12:05:09.020 ! up"}};
    for (const auto &one : cases)
        EXPECT_EQ(format_trace(1772366709020, 200, one.zone, one.text), one.line);
}

} // namespace keel

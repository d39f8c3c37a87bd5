/* The control socket and keelctl: what was typed, what was printed; and what must not disturb the host. */
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "host/base/trace.h"
#include "host/base/uv_loop.h"
#include "host/control/control.h"

namespace keel {

class ControlTest : public testing::Test {
protected:
    ControlTest() {
        path =
            (std::filesystem::temp_directory_path() / ("keel-control-" + std::to_string(getpid()) + ".sock")).string();
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        host = fork();
        if (host == 0)
            serve(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
    }

    ~ControlTest() override {
        kill(host, SIGTERM);
        int status = 0;
        waitpid(host, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the host did not live through it";
        EXPECT_FALSE(std::filesystem::exists(path));
    }

    /* The child: a host of a model and its socket alone. */
    [[noreturn]] void serve(int ready) {
        TraceLog::instance().set_print(false);
        std::signal(SIGPIPE, SIG_IGN);
        {
            UvLoop loop;
            Model model(loop);
            model.load_file(SOURCE_DIR "/share/gateway.json");
            Control control(loop, model, path, {[] { return std::string(); }, {}});
            trace(Level::Warning, "test", "a trace line");
            uv_signal_t end;
            uv_signal_init(loop.handle(), &end);
            end.data = &loop;
            uv_signal_start(
                &end, [](uv_signal_t *raised, int) { static_cast<UvLoop *>(raised->data)->stop(); }, SIGTERM);
            if (write(ready, "!", 1) != 1)
                _exit(2);
            loop.run();
            uv_close(reinterpret_cast<uv_handle_t *>(&end), nullptr);
        }
        _exit(0);
    }

    /* Types a keelctl command; what it printed, both streams, and its status in brackets. */
    std::string type(const std::string &words) const {
        FILE *pipe = popen((std::string(KEELCTL) + " --socket " + path + " " + words + " 2>&1").c_str(), "r");
        std::string printed;
        char buffer[4096];
        while (const std::size_t size = std::fread(buffer, 1, sizeof buffer, pipe))
            printed.append(buffer, size);
        return printed + "[" + std::to_string(WEXITSTATUS(pclose(pipe))) + "]";
    }

    int connect_raw() const {
        const int raw = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(raw, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        const timeval patience{3, 0};
        setsockopt(raw, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        return raw;
    }

    std::string say(const std::string &bytes) const {
        const int raw = connect_raw();
        EXPECT_GE(::send(raw, bytes.data(), bytes.size(), MSG_NOSIGNAL), 0);
        char buffer[4096];
        const ssize_t size = recv(raw, buffer, sizeof buffer, 0);
        close(raw);
        return std::string(buffer, size > 0 ? static_cast<std::size_t>(size) : 0);
    }

    std::string path;
    pid_t host = 0;
};

TEST_F(ControlTest, Transcripts) {
    const std::pair<const char *, const char *> lines[] = {
        {"get Keel.Zephyrin Mode", "Routed\n[0]"},
        {"-S get Keel.Zephyrin.DHCPConfig LeaseTime", "{\"LeaseTime\":86400}\n[0]"},
        {"set Keel.Zephyrin Mode=Bridged MonoClient=true", "[0]"},
        {"get Keel.Zephyrin Mode MonoClient", "Bridged\ntrue\n[0]"},
        {"get DHCPv4.Server.Pool.zep_stb.Option",
         "DHCPv4.Server.Pool.zep_stb.Option.ntp.Enable=false\nDHCPv4.Server.Pool.zep_stb.Option.ntp.Tag=42\n"
         "DHCPv4.Server.Pool.zep_stb.Option.ntp.Value=00000000\nDHCPv4.Server.Pool.zep_stb.Option.www.Enable=false\n"
         "DHCPv4.Server.Pool.zep_stb.Option.www.Tag=72\nDHCPv4.Server.Pool.zep_stb.Option.www.Value=00000000\n[0]"},
        {"add Keel.Zephyrin.ClasslessStaticRoute Destination=10.0.0.0 PrefixLength=8",
         "Keel.Zephyrin.ClasslessStaticRoute.1\n[0]"},
        {"add Keel.Zephyrin.ClientLease 0102 Name=0102 ClientIDOffset=-1", "Keel.Zephyrin.ClientLease.0102\n[0]"},
        {"add Keel.Zephyrin.ClientLease 0102", "keelctl: Keel.Zephyrin.ClientLease.0102: exists already\n[1]"},
        {"del Keel.Zephyrin.ClientLease.0102", "[0]"},
        {"del Keel.Zephyrin.ClientLease.0102", "keelctl: Keel.Zephyrin.ClientLease.0102: no such object\n[1]"},
        {"del Keel", "keelctl: Keel: only instances can be deleted\n[1]"},
        {"get Nowhere", "keelctl: Nowhere: no such object\n[1]"},
        {"get Keel Nothing", "keelctl: Keel: no parameter \"Nothing\"\n[1]"},
        {"set Keel.Zephyrin Mode", "keelctl: \"Mode\" is not of the form NAME=VALUE\n[1]"},
        {"set Keel.Zephyrin MonoClient=maybe Mode=Routed",
         "keelctl: Keel.Zephyrin: \"MonoClient\" wants a value of type bool, not \"maybe\"\n[1]"},
        {"set Keel.Zephyrin MonoClient=false Mode=Rooted",
         "keelctl: Keel.Zephyrin: Mode: Bridged, Routed, Simplified, SimplifiedV2; not \"Rooted\"\n[1]"},
        {"get Keel.Zephyrin.Mode", "Bridged\n[0]"},
        {"get Keel.Zephyrin.MonoClient -S", "{\"MonoClient\":true}\n[0]"},
        {"-S get Keel.Zephyrin.Mood", "{\"error\":\"Keel.Zephyrin.Mood: no such object\",\"status\":1}\n[1]"},
        {"watch Keel.Zephirin.Mode",
         "keelctl: Keel.Zephirin: there is no such object, and there cannot be one: nothing to watch\n[1]"},
        {"set Keel.Zephyrin.DHCPConfig LeaseTime=4294967296",
         "keelctl: Keel.Zephyrin.DHCPConfig: \"LeaseTime\" wants a value of type uint32, not \"4294967296\"\n[1]"},
    };
    for (const auto &[typed, printed] : lines)
        EXPECT_EQ(type(typed), printed) << typed;
    EXPECT_NE(type("trace").find(" ! test: a trace line\n[0]"), std::string::npos);
    EXPECT_TRUE(type("dance").ends_with("[1]"));
    EXPECT_EQ(say("{\"op\": \"watch\", \"path\": \"Weft.Intf.not.yet.IPv4Addr\"}\n"), "{\"ok\":true}\n");
    EXPECT_TRUE(type("help words").ends_with("information\n[0]"));
    setenv("KEEL_SOCKET", path.c_str(), 1);
    const std::string by_environment = std::string(KEELCTL) + " get Keel.Zephyrin.Mode";
    EXPECT_EQ(std::system(by_environment.c_str()), 0);
    unsetenv("KEEL_SOCKET");
}

TEST_F(ControlTest, TheStateIsTheDefaultView) {
    const std::string expires = std::to_string(std::time(nullptr) + std::time_t{3600} * 5 + 60);
    for (const std::string &line : {
             std::string("add Keel.Zephyrin.ClientLease 0102 Name=0102 ClientIDOffset=1 DHCPCStatus=Connected "
                         "IPAddress=10.20.0.7"),
             std::string("add Keel.Zephyrin.ClientLease.0102.ServerLease 0102 Id=0102 DeviceType=STB "
                         "IPAddress=192.168.1.20 MACAddress=02:00:00:00:00:01"),
             std::string("add Weft.Intf dhcp_zep_0102 DHCPStatus=Bound"),
             std::string("set Weft.Intf.dhcp_zep_0102.SentOption.61 Value=01aa"),
             std::string("set Weft.Intf.eth1.20 'Flags=netdev up'"),
             std::string("set Keel.Zephyrin NTPServer=0a1400020a140004 MonoClient=true"),
             std::string("set DHCPv4.Server.Pool.zep_stb LeasesOnHold=true"),
             std::string(
                 "add Weft.Intf.eth1.20.IPv4Route zep_0 Dst=10.60.0.0 DstLen=24 Gateway=10.20.0.1 Status=error"),
             std::string("add Hosts.Host 02:00:00:00:00:01 Active=true Port=lan1"),
             std::string("add DHCPv4.Server.Pool.zep_stb.Rule.1.Lease 0102 ClientID=0102 IPAddress=192.168.1.20"),
             "set DHCPv4.Server.Pool.zep_stb.Rule.1.Lease.0102 VendorClass=zep-stb.v2 MACAddress=02:00:00:00:00:01 "
             "Expires=" +
                 expires,
             std::string("add Firewall.Mapping 1 Address=192.168.1.20 PacketsOut=12 PacketsIn=3000"),
             std::string("add TIDE.Group 1 Address=239.1.2.3 Port=lan1 State=Forwarded"),
             std::string("add DHCPv4.Server.Pool.zep_stb.Rule.1.Lease 0109 ClientID=0109 IPAddress=192.168.1.21 "
                         "OnHold=true"),
             std::string("set DHCPv4.Server.Pool.zep_stb.Rule.1.Lease.0109 MACAddress=02:00:00:00:00:09"),
             std::string("add DHCPv4.Server.Pool.zep_itf.Rule.1.Lease 0103 ClientID=0103 IPAddress=192.168.1.40"),
         })
        EXPECT_NE(type(line).find("[0]"), std::string::npos) << line;
    EXPECT_EQ(type(""), "IPTV  enabled, Routed over the Dedicated interface, MonoClient on, leases wait in zep_stb\n"
                        "  0 of 2 STBs served: zep-stb-00:01 has no address in force, 02:00:00:00:00:09 has no "
                        "identity yet\n"
                        "  device   eth1.20\n"
                        "  servers  NTP 10.20.0.2 10.20.0.4, WWW none\n"
                        "  routed   1 identity\n"
                        "  wanmode  WAN mode Ethernet, stack iptv > dhcp_iptv > eth1.20\n"
                        "  l2fw     no IPTV device to keep apart\n"
                        "  tide     off in this mode\n"
                        "  igdmap   Idle\n"
                        "  firewall LAN to IPTV off\n"
                        "  route    10.60.0.0/24       via 10.20.0.1        error\n"
                        "\n"
                        "zep-stb-00:01  02:00:00:00:00:01  broken\n"
                        "  has no address in force\n"
                        "  LAN      192.168.1.20 behind lan1, lease released, 5 h left\n"
                        "  WAN      10.20.0.7, client Bound, slot 1, identifier 01aa\n"
                        "  rules    in the kernel, 12 packets out, 3000 in\n"
                        "  groups   239.1.2.3 Forwarded\n"
                        "\n"
                        "02:00:00:00:00:09  held\n"
                        "  has no identity yet\n"
                        "  LAN      192.168.1.21, lease held\n"
                        "\n"
                        "0103  absent\n"
                        "  LAN      192.168.1.40, lease released\n[0]");
    EXPECT_NE(type("-S").find("\"packets_in\":3000"), std::string::npos);
    /* What is stored from before a restart is not what is so. */
    EXPECT_TRUE(type("set Weft.Intf.dhcp_zep_0102 DHCPStatus=Selecting").ends_with("[0]"));
    EXPECT_NE(type("").find("WAN      none, client Selecting, slot 1"), std::string::npos) << type("");
    EXPECT_NE(type("why zep-stb-00:01").find("zep-stb-00:01  02:00:00:00:00:01  192.168.1.20"), std::string::npos);
}

/* An STB that holds nothing more than a lease of the given class on hold, and the operator's side of it. */
constexpr const char *bedroom[] = {
    "add Hosts.Host 02:00:00:00:00:01 MACAddress=02:00:00:00:00:01 Active=true Port=lan1",
    "add DHCPv4.Server.Pool.zep_stb.Rule.1.Lease 0101 ClientID=0101 IPAddress=192.168.1.20 OnHold=true",
    "set DHCPv4.Server.Pool.zep_stb.Rule.1.Lease.0101 HostName=bedroom MACAddress=02:00:00:00:00:01",
    "set DHCPv4.Server.Pool.zep_stb.Rule.1.Lease.0101 VendorClass=zep-stb",
    "set Weft.Intf.eth1.20 'Flags=netdev up'",
    "add Keel.Zephyrin.ClientLease 0101 Name=0101 ClientIDOffset=0 DHCPCStatus=Unconnected",
    "add Keel.Zephyrin.ClientLease.0101.ServerLease 0101 Id=0101 DeviceType=STB IPAddress=192.168.1.20",
    "add Weft.Intf dhcp_zep_0101 DHCPStatus=Selecting",
    "set Weft.Intf.dhcp_zep_0101.SentOption.61 Value=01aabb",
    "add DHCPv4.Client dhcp_zep_0101"};

TEST_F(ControlTest, WhyTellsTheLinkThatIsBroken) {
    const auto ago = [](int seconds) { return std::to_string(std::time(nullptr) - seconds); };
    const auto in = [](int seconds) { return std::to_string(std::time(nullptr) + seconds); };
    for (const char *line : bedroom)
        ASSERT_TRUE(type(line).ends_with("[0]")) << line;

    /* What is written, and what "why" says then. */
    const std::string client = "set DHCPv4.Client.dhcp_zep_0101 ";
    const std::string identity = "set Keel.Zephyrin.ClientLease.0101 ";
    const std::string lease = "set DHCPv4.Server.Pool.zep_stb.Rule.1.Lease.0101 ";
    const struct {
        std::vector<std::string> written;
        std::vector<std::string> said;
    } steps[] = {
        {{client + "Unanswered=7 LastError='no answer' UnansweredSince=" + ago(300) + " NextTry=" + in(94),
          identity + "DHCPCStatus=Unleased", lease + "OnHold=false"},
         {"bedroom  02:00:00:00:00:01  192.168.1.20  waits for the operator\n",
          "broken lease     no answer to DISCOVER "
          "on eth1.20 since ",
          " (7 sent); the STB has a stop-gap lease of 300 s; next try in 9", "5 min ago\n"}},
        {{client +
          "Unanswered=0 Server=10.20.0.1 LastError='refused by 10.20.0.1' Refusals=12 RefusedSince=" + ago(185)},
         {"10.20.0.1 refused (NAK) identifier 01aabb, 12 times in 3 min", "is refused by the operator"}},
        {{client + "RefusedSince=86400"}, {"identifier 01aabb, 12 times; the STB"}}, /* from before the clock was set */
        {{client + "Refusals=0 LastError='mask 255.0.255.0 is no mask of a network'"},
         {"broken lease     the operator leases what cannot be: mask 255.0.255.0", "is leased what it cannot use"}},
        {{client + "LastError='udhcpc cannot be started: no such file'"},
         {"broken client    udhcpc cannot be started: no such file"}},
        {{"set Weft.Intf.eth1.20 Flags=netdev", client + "Since=" + ago(610)},
         {"broken client    eth1.20 has no carrier", "10 min ago"}},
        {{"set Weft.Intf.eth1.20 'Flags=netdev up'", client + "LastError=",
          "set Weft.Intf.dhcp_zep_0101 DHCPStatus=Bound", identity + "DHCPCStatus=Connected IPAddress=10.20.0.51"},
         {"10.20.0.51 is not on eth1.20"}},
        {{"add Weft.Intf.eth1.20.IPv4Addr 1 Address=10.20.0.51 PrefixLen=24 Status=Enabled",
          "add Firewall.Missing 1 Table=nat Chain=POSTROUTING_zep Address=192.168.1.20 "
          "'What=the SNAT rule for 192.168.1.20' NextTry=" +
              in(59) + " Since=" + ago(3)},
         {"broken rules     the SNAT rule for 192.168.1.20 is not in POSTROUTING_zep; keelhost puts it back in 5"}},
        {{"del Firewall.Missing.1",
          "add Keel.Zephyrin.ClasslessStaticRoute 1 Destination=10.60.0.0 PrefixLength=24 Router=192.0.2.1",
          "add Weft.Intf.dhcp_zep_0101.ReqOption 121 Value=180a3c00c0000201"},
         {"broken routes    10.60.0.0/24 via 192.0.2.1: the next hop is not on 10.20.0.0/24; the operator's option 121 "
          "is wrong"}},
        {{"set Keel.Zephyrin.ClasslessStaticRoute.1 Router=10.20.0.1",
          "add Weft.Intf.eth1.20.IPv4Route zep_0 Dst=10.60.0.0 DstLen=24 Gateway=10.20.0.1 Status=error"},
         {"broken routes    10.60.0.0/24 via 10.20.0.1: it is not in the kernel"}},
        {{"set Weft.Intf.eth1.20.IPv4Route.zep_0 Status=Enabled",
          "set TIDE.Intf.iptv ClientEnable=true MRTIIFEnable=true WANEnable=true Status=Error",
          "add TIDE.Group 1 Address=239.1.2.3 Port=lan1 State=NotAsked"},
         {"broken multicast joined 239.1.2.3 on port lan1; the daemon does not run: it ends, or cannot be started"}},
        {{"set TIDE.Intf.iptv Status=Running Process=77"},
         {"joined 239.1.2.3 on port lan1; the daemon does not forward", "process 77 hangs"}},
        {{"set TIDE.Group.1 State=NoStream"}, {"has asked the operator for it, and nothing comes"}},
        {{"set Keel.Zephyrin Enable=false"}, {"broken service   the IPTV service is disabled"}},
    };
    for (const auto &[written, said] : steps) {
        for (const std::string &line : written)
            ASSERT_TRUE(type(line).ends_with("[0]")) << line << type(line);
        for (const char *words : {"why bedroom", "why"}) { /* the only one that is not served */
            const std::string told = type(words);
            for (const std::string &part : said)
                EXPECT_NE(told.find(part), std::string::npos) << words << ": " << part << "\n" << told;
            EXPECT_TRUE(told.ends_with("[3]")) << told;
        }
    }
    EXPECT_TRUE(type("set Keel.Zephyrin Enable=true").ends_with("[0]"));
    /* Groups in which devices look for each other, and routes of a lease that is long gone, make no STB dark. */
    for (const char *line :
         {"set TIDE.Group.1 State=Forwarded", "add TIDE.Group 2 Address=239.255.255.250 Port=lan1 State=NoStream",
          "del Weft.Intf.dhcp_zep_0101.ReqOption.121", "del Weft.Intf.eth1.20.IPv4Route.zep_0"})
        EXPECT_TRUE(type(line).ends_with("[0]")) << line;
    EXPECT_NE(type("why 02:00:00:00:00:01").find("is served\n  ok     service"), std::string::npos);
    EXPECT_EQ(type("why"), "all STBs on the LAN are served\n[0]");
    EXPECT_NE(type("").find("\n  1 of 1 STB served\n"), std::string::npos);
    EXPECT_TRUE(type("set Hosts.Host.02:00:00:00:00:01 Active=false").ends_with("[0]"));
    EXPECT_NE(type("why 192.168.1.20").find("broken lan       it was seen behind lan1, and is not there any more"),
              std::string::npos);
    EXPECT_NE(type("why 02:00:00:00:00:77").find("it was never seen on the LAN"), std::string::npos);
    EXPECT_NE(type("why attic").find("no device is known by \"attic\""), std::string::npos);
}

TEST_F(ControlTest, WhyTellsWhoTakesTheSlotsAndWhoHasAStrangeClass) {
    const std::string leases = "DHCPv4.Server.Pool.zep_stb.Rule.1.Lease";
    const std::string in_an_hour = std::to_string(std::time(nullptr) + 3660);
    for (const char number : std::string("12345")) {
        const std::string id = std::string("010") + number;
        const std::string mac = std::string("02:00:00:00:00:0") + number;
        for (const std::string &line :
             {"add " + leases + " " + id + " ClientID=" + id + " IPAddress=192.168.1.2" + number + " HostName=stb" +
                  number,
              "set " + leases + "." + id + " VendorClass=zep-stb MACAddress=" + mac + " Expires=" + in_an_hour,
              "add Hosts.Host " + mac + " MACAddress=" + mac + " Active=" + (number == '3' ? "false" : "true"),
              "add Keel.Zephyrin.ClientLease " + id + " Name=" + id +
                  " DHCPCStatus=Connected ClientIDOffset=" + static_cast<char>(number - 1),
              "add Keel.Zephyrin.ClientLease." + id + ".ServerLease " + id + " DeviceType=STB Id=" + id})
            if (number != '5' || !line.starts_with("add Keel")) {
                ASSERT_TRUE(type(line).ends_with("[0]")) << line;
            }
    }
    const std::string told = type("why stb5");
    EXPECT_NE(told.find("4 of 4 identities are in use by stb1, stb2, stb3, stb4; the first to go is stb3, in 49 h"),
              std::string::npos)
        << told;
    EXPECT_TRUE(type("set " + leases + ".0103 Expires=1700000000").ends_with("[0]"));
    EXPECT_NE(type("why stb5").find("the first to go is stb3, within 48 h"), std::string::npos)
        << "since when, who knows";
    EXPECT_TRUE(type("set Keel.Zephyrin.ClientLease.0103 ClientIDOffset=3").ends_with("[0]"));
    EXPECT_TRUE(type("set Keel.Zephyrin.ClientLease.0104 ClientIDOffset=2").ends_with("[0]"));
    EXPECT_TRUE(type("set " + leases + ".0103 Expires=" + in_an_hour).ends_with("[0]"));
    EXPECT_NE(type("why stb5").find("the first to go is stb3, in 6"), std::string::npos) << type("why stb5");
    const std::string json = type("-S why stb5");
    EXPECT_NE(json.find("\"cause\":\"slots_taken\",\"since\":0,\"evidence\":{\"identities\":4,"), std::string::npos)
        << json;

    for (const std::string &line :
         {std::string("set Keel.Zephyrin MonoClient=true"),
          std::string("add Keel.Zephyrin.ClientLease iptv Name=iptv ClientIDOffset=-1"),
          std::string("add Keel.Zephyrin.ClientLease.iptv.ServerLease 0101 DeviceType=STB Id=0101"),
          std::string("del Keel.Zephyrin.ClientLease.0101")})
        ASSERT_TRUE(type(line).ends_with("[0]")) << line;
    EXPECT_NE(type("why stb5").find("MonoClient is on and stb1 is served"), std::string::npos) << type("why stb5");

    for (const char *line : {"add DHCPv4.Server.Pool.lan.Rule.1.Lease 0106 ClientID=0106 IPAddress=192.168.1.100",
                             "set DHCPv4.Server.Pool.lan.Rule.1.Lease.0106 VendorClass=zepstb-v2 "
                             "MACAddress=02:00:00:00:00:06 HostName=kitchen",
                             "add Hosts.Host 02:00:00:00:00:06 MACAddress=02:00:00:00:00:06 Active=true"})
        ASSERT_TRUE(type(line).ends_with("[0]")) << line;
    for (const char *words : {"why kitchen", "why"})
        EXPECT_NE(type(words).find("it asked with class \"zepstb-v2\"; rules know \"zep-stb\", \"zep-itf\"; it got a "
                                   "PC's address, 192.168.1.100"),
                  std::string::npos)
            << words << type(words);
}

TEST_F(ControlTest, WhyTellsWhatTheSimplifiedModesLack) {
    const std::string stb = "set Hosts.Host.02:00:00:00:00:01 ";
    for (const char *line : bedroom)
        ASSERT_TRUE(type(line).ends_with("[0]")) << line;
    const struct {
        std::string written;
        std::string said;
    } steps[] = {
        {"set Keel.Zephyrin Mode=Simplified", "broken tag       Hosts.Host.02:00:00:00:00:01 is not tagged \"stb\""},
        {stb + "'Tags=lan stb'", "broken address   it was seen with no IPv4 address"},
        {stb + "IPAddress=192.168.1.20", "broken data      no device below \"data\" is up with an address: eth1.10 has "
                                         "no carrier"},
        {"set Weft.Intf.eth1.10 'Flags=netdev vlan up'", "eth1.10 has no IPv4 address"},
    };
    for (const auto &[written, said] : steps) {
        ASSERT_TRUE(type(written).ends_with("[0]")) << written;
        EXPECT_NE(type("why bedroom").find(said), std::string::npos) << type("why bedroom");
    }
    for (const char *line : {"set Weft.Intf.eth1.10 'Flags=netdev vlan up ipv4'",
                             "add Firewall.Missing 1 Chain=FORWARD_ZEP_Services Address=192.168.1.20 What=rule",
                             "set KeelHost.Script LastError='status 2: aux_rules A 192.168.1.20'"})
        ASSERT_TRUE(type(line).ends_with("[0]")) << line;
    EXPECT_NE(type("why bedroom").find("broken script    script failed with status 2: aux_rules A 192.168.1.20"),
              std::string::npos);
    EXPECT_TRUE(type("del Firewall.Missing.1").ends_with("[0]"));
    EXPECT_TRUE(type("why bedroom").ends_with("[0]")) << type("why bedroom");
}

TEST_F(ControlTest, WhateverIsSentGetsAClearErrorAndTheHostGoesOn) {
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);

    for (const char *bytes : {"\n", "{\n", "[]\n", "7\n", "\xff\xfe\n", "{\"op\": 3}\n", "{\"op\": \"get\"}\n",
                              "{\"op\": \"dance\", \"path\": \"Keel\"}\n", "{\"op\": \"trace\", \"lines\": \"x\"}\n",
                              "{\"op\": \"set\", \"path\": \"Keel\", \"values\": [1]}\n",
                              "{\"op\": \"set\", \"path\": \"Keel\", \"values\": {\"IPTVMode\": {}}}\n",
                              "{\"op\": \"add\", \"path\": \"Weft.Intf\", \"key\": 5}\n"}) {
        const std::string answer = say(bytes);
        EXPECT_TRUE(answer.starts_with("{\"ok\":false")) << bytes << answer;
        EXPECT_NE(answer.find("\"error\":\""), std::string::npos);
    }
    const std::string deep = std::string(30000, '[') + std::string(30000, ']');
    EXPECT_NE(say(R"({"op": "set", "path": "Keel", "values": {"IPTVMode": )" + deep + "}}\n").find("not array"),
              std::string::npos);
    EXPECT_NE(say(R"({"op": "trace", "lines": 1e300})"
                  "\n")
                  .find("a whole number"),
              std::string::npos);
    EXPECT_NE(say(std::string(1100000, 'x')).find("longer than 1048576"), std::string::npos);

    std::vector<int> many(40);
    for (int &one : many)
        one = connect_raw();
    char byte = 0;
    EXPECT_EQ(recv(many.back(), &byte, 1, 0), 0) << "one client too many is turned away";
    for (const int raw : many)
        close(raw);
    usleep(50000);
    EXPECT_EQ(type("get Keel IPTVMode"), "Dedicated\n[0]");
}

TEST_F(ControlTest, OneHostASocket) {
    UvLoop loop;
    Model model(loop);
    model.load_file(SOURCE_DIR "/share/gateway.json");
    EXPECT_THROW(Control(loop, model, path, {[] { return std::string(); }, {}}), std::runtime_error);
    EXPECT_EQ(type("get Keel IPTVMode"), "Dedicated\n[0]");
    const std::string missing = path;
    path += ".none";
    EXPECT_NE(type("get Keel").find("is keelhost running, and is this its socket (--socket)?\n[2]"), std::string::npos);
    path = missing;
}

TEST(Control, WhatIsNoSocketIsLeftAloneAndAMissingFolderIsMade) {
    namespace fs = std::filesystem;
    const fs::path folder = fs::temp_directory_path() / ("keel-sockets-" + std::to_string(getpid()));
    fs::create_directories(folder / "directory");
    std::ofstream(folder / "file") << "kept";
    fs::create_symlink("file", folder / "link");
    UvLoop loop;
    Model model(loop);
    model.load_file(SOURCE_DIR "/share/gateway.json");
    for (const char *name : {"file", "link", "directory"}) {
        const std::string path = folder / name;
        try {
            const Control control(loop, model, path, {[] { return std::string(); }, {}});
            ADD_FAILURE() << path;
        } catch (const std::runtime_error &error) {
            EXPECT_EQ(error.what(), path + " is no socket, and is left as it is: move it away, or choose another path");
        }
    }
    const fs::path socket = folder / "some" / "where" / "socket";
    {
        const Control control(loop, model, socket, {[] { return std::string(); }, {}});
        EXPECT_EQ(fs::status(socket.parent_path()).permissions(), fs::perms::owner_all);
        fs::remove(socket);
        std::ofstream(socket) << "not its own";
    }
    EXPECT_TRUE(fs::is_regular_file(socket)) << "nor at the end";
    fs::remove(socket);
    fs::permissions(socket.parent_path(), fs::perms::owner_all | fs::perms::group_exec);
    {
        const Control control(loop, model, socket, {[] { return std::string(); }, {}});
    }
    EXPECT_EQ(fs::status(socket.parent_path()).permissions(), fs::perms::owner_all | fs::perms::group_exec);
    EXPECT_FALSE(fs::exists(socket));
    EXPECT_TRUE(fs::is_symlink(folder / "link"));
    EXPECT_EQ(fs::file_size(folder / "file"), 4U);
    EXPECT_TRUE(fs::is_directory(folder / "directory"));
    fs::remove_all(folder);
}

} // namespace keel

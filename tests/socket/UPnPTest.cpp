// Port mapping against a real UPnP gateway (miniupnpd) in namespaces the
// fixture makes: LAN host 10.231.0.2 -- gateway 10.231.0.1 / 10.231.1.1 --
// WAN host 10.231.1.2. Nothing is attached to the machine's interfaces and
// every discovery runs inside a namespace of the fixture.
//
// miniupnpd maps nothing while its external address is private unless STUN
// tells it that address is public, so the WAN host runs a tiny STUN
// responder that answers every binding request with the sender's address.
#include "socket/UPnP.h"

#include "NetnsSupport.h"

#include <gtest/gtest.h>

#include <miniupnpc/miniupnpc.h>
#include <miniupnpc/upnpcommands.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr char const *kLanHost = "10.231.0.2";
constexpr char const *kOtherLanHost = "10.231.0.3";
constexpr char const *kGatewayWan = "10.231.1.1";
constexpr char const *kWanHost = "10.231.1.2";
constexpr unsigned short kStunPort = 3478;
constexpr auto kGatewayStartLimit = 30s;  // STUN alone can take 6 s

sockaddr_in Addr(char const *ip, unsigned short port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = ::inet_addr(ip);
  return a;
}

// Answers STUN binding requests with XOR-MAPPED-ADDRESS and MAPPED-ADDRESS
// of the sender. The socket is made in the WAN namespace; the serving thread
// needs no namespace of its own after that.
class StunResponder {
public:
  explicit StunResponder(nstest::Netns const &wan) {
    wan.RunIn([this] {
      fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      sockaddr_in a = Addr(kWanHost, kStunPort);
      if (fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0) {
        ::close(fd_);
        fd_ = -1;
      }
    });
    if (fd_ >= 0)
      thread_ = std::thread([this] { Serve(); });
  }
  ~StunResponder() {
    stop_ = true;
    if (thread_.joinable())
      thread_.join();
    if (fd_ >= 0)
      ::close(fd_);
  }
  bool ok() const { return fd_ >= 0; }

private:
  void Serve() {
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0)
        continue;
      unsigned char req[1500];
      sockaddr_in from{};
      socklen_t len = sizeof(from);
      ssize_t n = ::recvfrom(fd_, req, sizeof(req), 0, reinterpret_cast<sockaddr *>(&from), &len);
      if (n < 20 || req[0] != 0x00 || req[1] != 0x01)
        continue;
      unsigned char resp[20 + 24] = {0x01, 0x01, 0x00, 24};
      std::memcpy(resp + 4, req + 4, 16);  // magic cookie and transaction id
      auto attr = [&](unsigned char *at, unsigned char type, std::uint16_t port, std::uint32_t addr) {
        unsigned char a[12] = {0x00, type, 0x00, 8, 0x00, 0x01};
        std::memcpy(a + 6, &port, 2);
        std::memcpy(a + 8, &addr, 4);
        std::memcpy(at, a, sizeof(a));
      };
      std::uint32_t const cookie = htonl(0x2112A442u);
      attr(resp + 20, 0x20, static_cast<std::uint16_t>(from.sin_port ^ htons(0x2112)),
           from.sin_addr.s_addr ^ cookie);
      attr(resp + 32, 0x01, from.sin_port, from.sin_addr.s_addr);
      ::sendto(fd_, resp, sizeof(resp), 0, reinterpret_cast<sockaddr *>(&from), len);
    }
  }
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::string ReadFile(std::string const &path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// The gateway daemon in the foreground, its output in a log file. It dies
// with the test process (parent-death signal) even if the test crashes.
class GatewayDaemon {
public:
  GatewayDaemon(std::string const &ns, std::string const &conf, std::string const &dir)
      : log_(dir + "/miniupnpd.log") {
    std::string const pidFile = dir + "/miniupnpd.pid";
    char const *argv[] = {"ip", "netns", "exec", ns.c_str(), "miniupnpd", "-d", "-f", conf.c_str(),
                          "-P", pidFile.c_str(), nullptr};
    int out = ::open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (out < 0)
      return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::dup2(out, 1);
      ::dup2(out, 2);
      ::execvp("ip", const_cast<char *const *>(argv));
      ::_exit(127);
    }
    ::close(out);
  }
  ~GatewayDaemon() { Stop(); }
  std::string Log() const { return ReadFile(log_); }

  // Polls the log until the daemon serves HTTP; false when it exits first or
  // the limit passes.
  bool WaitReady() {
    auto const deadline = Clock::now() + kGatewayStartLimit;
    while (pid_ > 0 && Clock::now() < deadline) {
      if (ReadFile(log_).find("HTTP listening on port") != std::string::npos)
        return true;
      int st = 0;
      if (::waitpid(pid_, &st, WNOHANG) == pid_) {
        pid_ = -1;
        break;
      }
      std::this_thread::sleep_for(50ms);
    }
    ADD_FAILURE() << "the gateway did not start:\n" << ReadFile(log_);
    return false;
  }

  void Stop() {
    if (pid_ <= 0)
      return;
    ::kill(pid_, SIGTERM);
    auto const deadline = Clock::now() + 10s;
    int st = 0;
    while (::waitpid(pid_, &st, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &st, 0);
        break;
      }
      std::this_thread::sleep_for(20ms);
    }
    pid_ = -1;
  }

private:
  std::string log_;
  pid_t pid_ = -1;
};

struct TempDir {
  std::string path;
  TempDir() {
    char tmpl[] = "/tmp/sl-upnp-XXXXXX";
    if (::mkdtemp(tmpl) != nullptr)
      path = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    if (!path.empty())
      std::filesystem::remove_all(path, ec);
  }
};

// The gateway's tables and chains that miniupnpd fills (its defaults).
constexpr char const *kGatewayRules = R"(table inet filter {
  chain forward { type filter hook forward priority 0; policy accept; jump miniupnpd; }
  chain miniupnpd { }
  chain prerouting { type nat hook prerouting priority -100; policy accept; jump prerouting_miniupnpd; }
  chain postrouting { type nat hook postrouting priority 100; policy accept; jump postrouting_miniupnpd; }
  chain prerouting_miniupnpd { }
  chain postrouting_miniupnpd { }
}
)";

class GatewayLab : public ::testing::Test {
protected:
  void SetUp() override {
    NSTEST_REQUIRE_NETNS();
    std::string why;
    if (nstest::Run("command -v miniupnpd", &why) != 0 || nstest::Run("command -v nft", &why) != 0) {
      if (nstest::InCi())
        FAIL() << "miniupnpd or nft missing (scripts/install-deps.sh installs them)";
      GTEST_SKIP() << "miniupnpd or nft missing (scripts/install-deps.sh installs them)";
    }
    lan_ = std::make_unique<nstest::Netns>("l");
    gw_ = std::make_unique<nstest::Netns>("g");
    wan_ = std::make_unique<nstest::Netns>("w");
    ASSERT_TRUE(lan_->ok() && gw_->ok() && wan_->ok());
    std::string const lanIf = nstest::Netns::Ifname("a0"), gwLanIf = nstest::Netns::Ifname("a1");
    std::string const gwWanIf = nstest::Netns::Ifname("b0"), wanIf = nstest::Netns::Ifname("b1");
    ASSERT_TRUE(nstest::RunOk(lan_->ip() + "link add " + lanIf + " type veth peer name " + gwLanIf +
                              " netns " + gw_->name()));
    ASSERT_TRUE(nstest::RunOk(gw_->ip() + "link add " + gwWanIf + " type veth peer name " + wanIf +
                              " netns " + wan_->name()));
    ASSERT_TRUE(Lan(*lan_, lanIf, "10.231.0.2/24"));
    ASSERT_TRUE(nstest::RunOk(lan_->ip() + "route add 10.231.1.0/24 via 10.231.0.1"));
    ASSERT_TRUE(nstest::RunOk(lan_->ip() + "route add 239.255.255.250/32 dev " + lanIf));
    ASSERT_TRUE(Lan(*gw_, gwLanIf, "10.231.0.1/24"));
    ASSERT_TRUE(Lan(*gw_, gwWanIf, "10.231.1.1/24"));
    ASSERT_TRUE(Lan(*wan_, wanIf, "10.231.1.2/24"));
    ASSERT_TRUE(nstest::RunOk("ip netns exec " + gw_->name() + " sysctl -qw net.ipv4.ip_forward=1"));

    ASSERT_FALSE(dir_.path.empty());
    std::string const rules = dir_.path + "/gateway.nft";
    std::ofstream(rules) << kGatewayRules;
    ASSERT_TRUE(nstest::RunOk("ip netns exec " + gw_->name() + " nft -f " + rules));
    conf_ = dir_.path + "/miniupnpd.conf";
    std::ofstream(conf_) << "ext_ifname=" << gwWanIf << "\nlistening_ip=" << gwLanIf
                         << "\nport=0\nenable_natpmp=no\nenable_upnp=yes\n"
                            "ext_perform_stun=yes\next_stun_host=" << kWanHost
                         << "\next_stun_port=" << kStunPort
                         << "\nsecure_mode=no\nsystem_uptime=no\n"
                            "uuid=5d1b9a3e-0c2f-4e51-9a7d-2b6c8e0f4a13\n"
                            "allow 1024-65535 10.231.0.0/24 1024-65535\n"
                            "deny 0-65535 0.0.0.0/0 0-65535\n";
    stun_ = std::make_unique<StunResponder>(*wan_);
    ASSERT_TRUE(stun_->ok());
    StartGateway();
  }

  void TearDown() override {
    if (HasFailure() && daemon_)
      std::cerr << "gateway log:\n" << daemon_->Log();
    daemon_.reset();  // before the namespaces go
    stun_.reset();
  }

  // Ready once the LAN host's search gets an answer: the daemon opens its
  // SSDP socket only after it logs that HTTP is up.
  void StartGateway() {
    daemon_ = std::make_unique<GatewayDaemon>(gw_->name(), conf_, dir_.path);
    ASSERT_TRUE(daemon_->WaitReady());
    char const *const types[] = {"urn:schemas-upnp-org:device:InternetGatewayDevice:1", nullptr};
    bool found = false;
    auto const deadline = Clock::now() + kGatewayStartLimit;
    while (!found && Clock::now() < deadline) {
      lan_->RunIn([&] {
        int err = 0;
        UPNPDev *devs = upnpDiscoverDevices(types, 500, nullptr, nullptr, UPNP_LOCAL_PORT_ANY, 0, 2, &err, 0);
        found = devs != nullptr;
        freeUPNPDevlist(devs);
      });
    }
    ASSERT_TRUE(found) << "the gateway never answered a search";
  }

  static bool Lan(nstest::Netns const &ns, std::string const &ifname, std::string const &cidr) {
    return nstest::RunOk(ns.ip() + "addr add " + cidr + " dev " + ifname) &&
           nstest::RunOk(ns.ip() + "link set " + ifname + " up");
  }

  // Library calls from the LAN host.
  int Add(char const *proto, char const *client, int port, char const *desc) {
    int r = -1;
    lan_->RunIn([&] { r = AdduPnPPort(proto, client, port, desc); });
    return r;
  }
  int Reset(char const *proto, int port) {
    int r = -1;
    lan_->RunIn([&] { r = ResetuPnP(proto, port); });
    return r;
  }

  // The gateway's own record of a mapping, read with the client library
  // directly: "client:port desc enabled", or "" when it has none.
  std::string Entry(char const *proto, int port) {
    std::string out;
    lan_->RunIn([&] {
      int err = 0;
      UPNPDev *devs = upnpDiscover(2000, nullptr, nullptr, UPNP_LOCAL_PORT_ANY, 0, 2, &err);
      UPNPUrls urls{};
      IGDdatas data{};
      char lanAddr[64] = {0};
      int igd = UPNP_GetValidIGD(devs, &urls, &data, lanAddr, sizeof(lanAddr));
      freeUPNPDevlist(devs);
      EXPECT_TRUE(igd == 1 || igd == 2) << "test client found no gateway: " << igd;
      if (igd == 1 || igd == 2) {
        char client[40] = {0}, iport[8] = {0}, desc[80] = {0}, enabled[8] = {0}, lease[16] = {0};
        std::string const ext = std::to_string(port);
        if (UPNP_GetSpecificPortMappingEntry(urls.controlURL, data.first.servicetype, ext.c_str(), proto,
                                             nullptr, client, iport, desc, enabled, lease) == 0)
          out = std::string(client) + ":" + iport + " " + desc + " " + enabled;
      }
      FreeUPNPUrls(&urls);
    });
    return out;
  }

  TempDir dir_;
  std::unique_ptr<nstest::Netns> lan_, gw_, wan_;
  std::unique_ptr<StunResponder> stun_;
  std::unique_ptr<GatewayDaemon> daemon_;
  std::string conf_;
};

TEST_F(GatewayLab, AddedMappingIsOnTheGatewayAndResetRemovesOnlyIt) {
  ASSERT_EQ(1, Add("TCP", kLanHost, 40000, "media in"));
  ASSERT_EQ(1, Add("UDP", kLanHost, 40000, "media in udp"));
  EXPECT_EQ("10.231.0.2:40000 media in 1", Entry("TCP", 40000));
  EXPECT_EQ("10.231.0.2:40000 media in udp 1", Entry("UDP", 40000));

  EXPECT_EQ(1, Reset("TCP", 40000));
  EXPECT_EQ("", Entry("TCP", 40000));
  EXPECT_EQ("10.231.0.2:40000 media in udp 1", Entry("UDP", 40000)) << "other protocol untouched";
  EXPECT_EQ(1, Reset("TCP", 40000)) << "a gateway was asked even with nothing to remove";
}

// The gateway refuses to move a mapping to another client unless the old one
// is removed first.
TEST_F(GatewayLab, AddingOverAnotherClientsMappingReplacesIt) {
  ASSERT_EQ(1, Add("TCP", kLanHost, 41000, "first"));
  ASSERT_EQ(1, Add("TCP", kOtherLanHost, 41000, "second"));
  EXPECT_EQ("10.231.0.3:41000 second 1", Entry("TCP", 41000));
}

TEST_F(GatewayLab, WanHostReachesTheLanListenerThroughTheMapping) {
  int listener = -1;
  unsigned short port = 0;
  lan_->RunIn([&] {
    listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = Addr(kLanHost, 0);
    socklen_t len = sizeof(a);
    ASSERT_EQ(0, ::bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof(a)));
    ASSERT_EQ(0, ::listen(listener, 1));
    ASSERT_EQ(0, ::getsockname(listener, reinterpret_cast<sockaddr *>(&a), &len));
    port = ntohs(a.sin_port);
  });
  std::unique_ptr<int, void (*)(int *)> closeListener(&listener, [](int *fd) {
    if (*fd >= 0)
      ::close(*fd);
  });
  ASSERT_GE(port, 1024) << "the gateway's rules allow 1024 and up";
  ASSERT_EQ(1, Add("TCP", kLanHost, port, "listener"));

  wan_->RunIn([&] {
    int c = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = Addr(kGatewayWan, port);
    EXPECT_EQ(0, ::connect(c, reinterpret_cast<sockaddr *>(&to), sizeof(to))) << std::strerror(errno);
    EXPECT_EQ(2, ::send(c, "hi", 2, MSG_NOSIGNAL));
    ::close(c);
  });
  pollfd p{listener, POLLIN, 0};
  ASSERT_EQ(1, ::poll(&p, 1, 10000)) << "no connection reached the LAN host";
  sockaddr_in peer{};
  socklen_t len = sizeof(peer);
  int s = ::accept4(listener, reinterpret_cast<sockaddr *>(&peer), &len, SOCK_CLOEXEC);
  ASSERT_GE(s, 0);
  char buf[2] = {0};
  EXPECT_EQ(2, ::recv(s, buf, 2, MSG_WAITALL));
  EXPECT_EQ(0, std::memcmp(buf, "hi", 2));
  EXPECT_EQ(::inet_addr(kWanHost), peer.sin_addr.s_addr);
  ::close(s);
}

TEST_F(GatewayLab, LocalIpIsTheLanAddressTheGatewaySees) {
  char ip[16];
  std::memset(ip, 'x', sizeof(ip));
  int r = 0;
  lan_->RunIn([&] { r = GetuPnPLocalIP(ip, 15); });
  EXPECT_EQ(1, r);
  EXPECT_STREQ(kLanHost, ip);
}

// The remembered gateway is gone after a restart (it listens on a new
// port); the next call finds the new one instead of failing.
TEST_F(GatewayLab, RestartedGatewayIsFoundAgain) {
  ASSERT_EQ(1, Add("TCP", kLanHost, 42000, "before"));
  daemon_->Stop();
  StartGateway();
  ASSERT_EQ(1, Add("TCP", kLanHost, 42001, "after"));
  EXPECT_EQ("10.231.0.2:42001 after 1", Entry("TCP", 42001));
}

TEST_F(GatewayLab, RefusalsAndBadArgumentsGiveZero) {
  EXPECT_EQ(0, Add("TCP", kLanHost, 80, "below the allowed range"));
  EXPECT_EQ(0, Add("TCP", kLanHost, 0, "x"));
  EXPECT_EQ(0, Add("TCP", kLanHost, 65536, "x"));
  EXPECT_EQ(0, Add(" ", kLanHost, 43000, "x"));
  EXPECT_EQ(0, Add("TCP", nullptr, 43000, "x"));
  EXPECT_EQ(0, Reset(nullptr, 43000));
  EXPECT_EQ(1, Add("TCP", kLanHost, 43000, nullptr)) << "no description is fine";
}

// No gateway: a namespace with only loopback, and a LAN whose other end has
// nothing. Discovery is bounded, so the answer comes within seconds.
TEST(UPnPNoGateway, GivesZeroWithinBoundedTime) {
  NSTEST_REQUIRE_NETNS();
  nstest::Netns alone("x"), lan("y"), empty("z");
  ASSERT_TRUE(alone.ok() && lan.ok() && empty.ok());
  std::string const lanIf = nstest::Netns::Ifname("y0");
  ASSERT_TRUE(nstest::RunOk(lan.ip() + "link add " + lanIf + " type veth peer name " +
                            nstest::Netns::Ifname("y1") + " netns " + empty.name()));
  ASSERT_TRUE(nstest::RunOk(lan.ip() + "addr add 10.231.2.2/24 dev " + lanIf));
  ASSERT_TRUE(nstest::RunOk(lan.ip() + "link set " + lanIf + " up"));
  ASSERT_TRUE(nstest::RunOk(lan.ip() + "route add 239.255.255.250/32 dev " + lanIf));
  for (nstest::Netns const *ns : {&alone, &lan}) {
    auto const start = Clock::now();
    ns->RunIn([] {
      char ip[16] = "x";
      EXPECT_EQ(0, AdduPnPPort("TCP", "10.231.2.2", 44000, "x"));
      EXPECT_EQ(0, ResetuPnP("TCP", 44000));
      EXPECT_EQ(0, GetuPnPLocalIP(ip, 15));
      EXPECT_STREQ("", ip);
    });
    // Three discoveries of about 2 s each; generous slop for a loaded machine.
    EXPECT_LT(Clock::now() - start, 20s) << ns->name();
  }
}

}  // namespace

// The chat server example driven by several plain POSIX clients on loopback:
// registration, channels, private messages, error replies and leaving.
#include "ChatServer.h"

#include "platform/Clock.h"
#include "server/ServerTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>

namespace {

using namespace srvtest;

namespace sp = shared::platform;

class Chat : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(chat_.IsOk());
    port_ = chat_.Listen(0, "127.0.0.1");
    ASSERT_GT(port_, 0);
  }
  void TearDown() override {
    for (int fd : fds_)
      ::close(fd);
  }
  int Connect() {
    int fd = Dial(port_);
    EXPECT_GE(fd, 0);
    fds_.push_back(fd);
    return fd;
  }
  // A client registered under nick.
  int Login(char const *nick) {
    int fd = Connect();
    Say(fd, std::string("NICK ") + nick);
    Expect(fd, {std::string("001 ") + nick + " :Welcome to the chat"});
    return fd;
  }
  static void Say(int fd, std::string const &line) { ASSERT_TRUE(SendAll(fd, line + "\r\n")); }
  // The next bytes fd receives are exactly these lines.
  static void Expect(int fd, std::initializer_list<std::string> lines) {
    std::string want;
    for (auto const &l : lines)
      want += l + "\r\n";
    EXPECT_EQ(ReadBytes(fd, want.size()), want);
  }
  // Nothing else is pending for fd: the answer to a fresh PING comes next.
  static void ExpectNothingMore(int fd, char const *token) {
    Say(fd, std::string("PING ") + token);
    Expect(fd, {std::string("PONG ") + token});
  }

  examples::ChatServer chat_;
  int port_ = -1;
  std::vector<int> fds_;
};

TEST_F(Chat, ChannelMessagesReachEveryOtherMemberAndPrivateOnesOnlyTheirTarget) {
  int alice = Login("alice");
  int bob = Login("bob");
  int carol = Login("carol");
  Say(alice, "JOIN #room");
  Expect(alice, {":alice JOIN #room"});
  Say(bob, "join #ROOM");  // keywords and channel names ignore case
  Expect(bob, {":bob JOIN #ROOM"});
  Expect(alice, {":bob JOIN #ROOM"});
  EXPECT_EQ(chat_.Members("#room"), 2u);

  Say(alice, "PRIVMSG #room :hello all, with spaces");
  Expect(bob, {":alice PRIVMSG #room :hello all, with spaces"});
  ExpectNothingMore(alice, "a1");  // no echo to the sender
  ExpectNothingMore(carol, "c1");  // not a member

  Say(carol, "privmsg BOB :psst");
  Expect(bob, {":carol PRIVMSG BOB :psst"});
  ExpectNothingMore(alice, "a2");

  // Several commands in one packet are answered in order.
  ASSERT_TRUE(SendAll(bob, "PING 1\r\nPRIVMSG #room :two\nPING 3\r\n"));
  Expect(bob, {"PONG 1", "PONG 3"});
  Expect(alice, {":bob PRIVMSG #room :two"});
}

TEST_F(Chat, MistakesGetNumericRepliesAndKeepTheConnection) {
  int anon = Connect();
  Say(anon, "JOIN #room");
  Expect(anon, {"451 JOIN :You have not registered"});
  Say(anon, "HELLO there");
  Expect(anon, {"421 HELLO :Unknown command"});
  Say(anon, "NICK");
  Expect(anon, {"431 :No nickname given"});
  Say(anon, "NICK #bad");
  Expect(anon, {"432 #bad :Erroneous nickname"});

  int alice = Login("alice");
  Say(anon, "NICK ALICE");
  Expect(anon, {"433 ALICE :Nickname is already in use"});
  Say(alice, "PRIVMSG nobody :hi");
  Expect(alice, {"401 nobody :No such nick/channel"});
  Say(alice, "PRIVMSG #none :hi");
  Expect(alice, {"401 #none :No such nick/channel"});
  Say(alice, "PRIVMSG alice");
  Expect(alice, {"461 PRIVMSG :Not enough parameters"});
  Say(alice, "JOIN nochannel");
  Expect(alice, {"403 nochannel :No such channel"});

  int bob = Login("bob");
  Say(bob, "JOIN #room");
  Expect(bob, {":bob JOIN #room"});
  Say(alice, "PRIVMSG #room :let me in");
  Expect(alice, {"404 #room :Cannot send to channel"});
  ExpectNothingMore(bob, "b");
  ExpectNothingMore(anon, "n");
}

TEST_F(Chat, LeavingTellsChannelMatesAndFreesTheNick) {
  int alice = Login("alice");
  int bob = Login("bob");
  int carol = Login("carol");
  Say(alice, "JOIN #room");
  Expect(alice, {":alice JOIN #room"});
  Say(bob, "JOIN #room");
  Expect(bob, {":bob JOIN #room"});
  Say(carol, "JOIN #room");
  Expect(carol, {":carol JOIN #room"});
  Expect(alice, {":bob JOIN #room", ":carol JOIN #room"});
  Expect(bob, {":carol JOIN #room"});

  Say(alice, "QUIT :gone fishing");
  Expect(alice, {"ERROR :Closing link"});
  EXPECT_TRUE(PeerClosed(alice));
  Expect(bob, {":alice QUIT :gone fishing"});
  Expect(carol, {":alice QUIT :gone fishing"});

  // A vanished peer is announced too.
  Reset(carol);
  fds_.erase(std::find(fds_.begin(), fds_.end(), carol));
  Expect(bob, {":carol QUIT :Connection closed"});
  EXPECT_TRUE(Eventually([&] { return chat_.Members("#room") == 1 && chat_.Users() == 1; }));

  int again = Login("alice");  // the nick is free again
  Say(bob, "PRIVMSG alice :welcome back");
  Expect(again, {":bob PRIVMSG alice :welcome back"});
}

// The idle policy on the test clock: silent users are pinged at 15 s, an
// answer keeps a user, and one that never answers is dropped at 30 s with
// its channel mates told.
TEST(ChatIdle, SilentUsersArePingedAndDroppedAnswerersStay) {
  sp::ManualClock clock(1700000000, 1000, false);
  sp::ScopedClockSource use(clock);
  std::vector<int> fds;
  struct Closer {
    std::vector<int> &fds;
    ~Closer() {
      for (int fd : fds)
        ::close(fd);
    }
  } closer{fds};
  examples::ChatServer chat;
  int const port = chat.Listen(0, "127.0.0.1");
  ASSERT_GT(port, 0);
  auto say = [](int fd, std::string const &l) { ASSERT_TRUE(SendAll(fd, l + "\r\n")); };
  auto expect = [](int fd, std::string const &l) { EXPECT_EQ(ReadBytes(fd, l.size() + 2), l + "\r\n"); };
  for (char const *nick : {"alice", "bob"}) {
    fds.push_back(Dial(port));
    ASSERT_GE(fds.back(), 0);
    say(fds.back(), std::string("NICK ") + nick + "\r\nJOIN #room");
    expect(fds.back(), std::string("001 ") + nick + " :Welcome to the chat");
  }
  int const alice = fds[0], bob = fds[1];
  expect(alice, ":alice JOIN #room");
  expect(alice, ":bob JOIN #room");
  expect(bob, ":bob JOIN #room");

  clock.Advance(16000);
  chat.Server().VerifyIdleUsers();
  expect(alice, "PING :chat");
  expect(bob, "PING :chat");
  say(bob, "PONG :chat");
  say(bob, "PING sync");  // answered after the PONG was taken
  expect(bob, "PONG sync");

  clock.Advance(15000);  // alice silent 31 s, bob 15 s
  chat.Server().VerifyIdleUsers();
  EXPECT_TRUE(PeerClosed(alice));
  expect(bob, ":alice QUIT :Connection closed");
  expect(bob, "PING :chat");
  EXPECT_EQ(chat.Members("#room"), 1u);
}

}  // namespace

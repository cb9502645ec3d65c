// ChatServer.h: a small line-protocol chat server on SockSrv; nc or telnet
// can talk to it.
//
// One command per line; keywords are found through a Hash_cmd over the
// server command table, so case does not matter:
//   NICK name             register (or rename): "001 name :Welcome"
//   JOIN #channel         enter a channel: every member gets ":name JOIN #channel"
//   PRIVMSG target :text  to every other member of a channel, or to one nick
//   PING token            answered "PONG token"
//   PONG token            counts as activity only
//   QUIT [:reason]        "ERROR :Closing link", then channel mates get
//                         ":name QUIT :reason"
// Errors are numeric replies: 401 no such nick/channel, 404 cannot send to a
// channel one is not in, 421 unknown command, 431 no nickname given,
// 433 nickname in use, 451 not registered, 461 not enough parameters.
// A user silent for 15 s gets "PING :chat" and is dropped after 30 s.
//
// Threads: every callback runs on the "SockSrv Thread". The chat state is
// guarded by state_, which callbacks take without waiting for any other
// thread, so the accessors may be called from any thread.
#pragma once

#include "server/SockSrv.h"
#include "text/HashT.h"

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace examples {

class ChatServer final : public ISockSrvCallback {
public:
  ChatServer();
  ~ChatServer();
  ChatServer(ChatServer const &) = delete;
  ChatServer &operator=(ChatServer const &) = delete;

  // Listens on addr:port; port 0 lets the system pick. Returns the port
  // listened on, or -1.
  int Listen(int port, char const *addr);
  bool IsOk() const { return srv_->IsOk(); }
  SockSrv &Server() { return *srv_; }

  // Connections that have sent at least one line.
  std::size_t Users() const;
  std::size_t Members(std::string const &channel) const;

  int OnSockSrvData(char const *data, unsigned len, unsigned sock) override;
  int OnSockSrvIdle(unsigned sock) override;
  void OnSockSrvClose(unsigned sock) override;

private:
  struct Client {
    std::string nick;               // "" until NICK
    std::set<std::string> channels;  // folded names
    std::string quitReason = "Connection closed";
  };

  // The words of a line: the command, its parameters, and a last parameter
  // introduced by ':' that keeps its spaces.
  static std::vector<std::string> Split(std::string const &line);
  static std::string Fold(std::string const &name);

  // Command handlers, state_ held. A false result ends the connection.
  bool OnNick(unsigned sock, Client &c, std::vector<std::string> const &p);
  void OnJoin(unsigned sock, Client &c, std::vector<std::string> const &p);
  void OnPrivmsg(unsigned sock, Client &c, std::vector<std::string> const &p);

  void Send(unsigned sock, std::string const &line);
  // To every member of the client's channels once, except skip.
  void ToChannelMates(Client const &c, std::string const &line, unsigned skip);

  Hash_cmd commands_;
  // Owned. A plain pointer that never changes after construction: the
  // server thread reads it in callbacks until the destructor's join.
  SockSrv *const srv_;
  mutable std::mutex state_;
  std::map<unsigned, Client> clients_;                      // guarded by state_
  std::map<std::string, unsigned> nicks_;                   // folded nick -> socket; state_
  std::map<std::string, std::set<unsigned>> channels_;      // folded name -> members; state_
};

}  // namespace examples

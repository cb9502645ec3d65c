#include "ChatServer.h"

#include <cctype>

namespace examples {

namespace {

// Codes of the commands in the server command table.
constexpr unsigned kJoin = 1028;
constexpr unsigned kNick = 1039;
constexpr unsigned kPing = 1046;
constexpr unsigned kPong = 1047;
constexpr unsigned kPrivmsg = 1049;
constexpr unsigned kQuit = 1052;

constexpr std::size_t kMaxName = 63;  // the library's fixed name fields

bool ValidName(std::string const &name, bool channel) {
  if (name.empty() || name.size() > kMaxName || (name[0] == '#') != channel)
    return false;
  for (char ch : name) {
    if (static_cast<unsigned char>(ch) <= ' ' || ch == ':' || ch == ',')
      return false;
  }
  return true;
}

}  // namespace

ChatServer::ChatServer() : commands_(srvcmd_vet), srv_(new SockSrv(this, nullptr, 65535, 1, "chat")) {}

// The server goes first (its destructor joins the thread that calls back),
// while the state it calls into still exists.
ChatServer::~ChatServer() { delete srv_; }

int ChatServer::Listen(int port, char const *addr) {
  if (!IsOk())
    return -1;
  unsigned sock = 0;
  int bound = 0;
  // SockSrv::listen refuses port 0; the controller takes it and reports the
  // port picked, and the wake-up makes the running pass watch the socket.
  if (!srv_->GetSocketCtrl()->listen("TCP", 1024, port, addr, nullptr, &sock, 0, &bound))
    return -1;
  srv_->WakeUp();
  return bound;
}

std::size_t ChatServer::Users() const {
  std::lock_guard<std::mutex> g(state_);
  return clients_.size();
}

std::size_t ChatServer::Members(std::string const &channel) const {
  std::lock_guard<std::mutex> g(state_);
  auto it = channels_.find(Fold(channel));
  return it == channels_.end() ? 0 : it->second.size();
}

std::vector<std::string> ChatServer::Split(std::string const &line) {
  std::vector<std::string> words;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && line[i] == ' ')
      ++i;
    if (i == line.size())
      break;
    if (line[i] == ':' && !words.empty()) {
      words.push_back(line.substr(i + 1));
      break;
    }
    std::size_t const end = line.find(' ', i);
    words.push_back(line.substr(i, end == std::string::npos ? std::string::npos : end - i));
    i = end == std::string::npos ? line.size() : end;
  }
  return words;
}

std::string ChatServer::Fold(std::string const &name) {
  std::string f = name;
  for (char &ch : f)
    ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  return f;
}

void ChatServer::Send(unsigned sock, std::string const &line) {
  srv_->write(line.c_str(), static_cast<int>(line.size()), sock, 1);
}

void ChatServer::ToChannelMates(Client const &c, std::string const &line, unsigned skip) {
  std::set<unsigned> to;
  for (auto const &name : c.channels) {
    auto it = channels_.find(name);
    if (it != channels_.end())
      to.insert(it->second.begin(), it->second.end());
  }
  to.erase(skip);
  for (unsigned s : to)
    Send(s, line);
}

int ChatServer::OnSockSrvData(char const *data, unsigned len, unsigned sock) {
  std::vector<std::string> const words = Split(std::string(data, len));
  if (words.empty())
    return 1;
  std::lock_guard<std::mutex> g(state_);
  Client &c = clients_[sock];
  unsigned const code = commands_.search(words[0].c_str());
  bool const registered = !c.nick.empty();
  switch (code) {
  case kNick:
    return OnNick(sock, c, words) ? 1 : 0;
  case kPing:
    Send(sock, "PONG " + (words.size() > 1 ? words[1] : std::string("chat")));
    return 1;
  case kPong:
    return 1;
  case kQuit:
    if (words.size() > 1)
      c.quitReason = words[1];
    Send(sock, "ERROR :Closing link");
    return 0;  // the server closes the connection; OnSockSrvClose tells the mates
  case kJoin:
  case kPrivmsg:
    if (!registered) {
      Send(sock, "451 " + words[0] + " :You have not registered");
      return 1;
    }
    if (code == kJoin)
      OnJoin(sock, c, words);
    else
      OnPrivmsg(sock, c, words);
    return 1;
  default:
    Send(sock, "421 " + words[0] + " :Unknown command");
    return 1;
  }
}

bool ChatServer::OnNick(unsigned sock, Client &c, std::vector<std::string> const &p) {
  if (p.size() < 2) {
    Send(sock, "431 :No nickname given");
    return true;
  }
  std::string const &nick = p[1];
  if (!ValidName(nick, false)) {
    Send(sock, "432 " + nick + " :Erroneous nickname");
    return true;
  }
  auto const taken = nicks_.find(Fold(nick));
  if (taken != nicks_.end() && taken->second != sock) {
    Send(sock, "433 " + nick + " :Nickname is already in use");
    return true;
  }
  if (c.nick.empty()) {
    Send(sock, "001 " + nick + " :Welcome to the chat");
  } else {
    std::string const line = ":" + c.nick + " NICK " + nick;
    Send(sock, line);
    ToChannelMates(c, line, sock);
    nicks_.erase(Fold(c.nick));
  }
  c.nick = nick;
  nicks_[Fold(nick)] = sock;
  return true;
}

void ChatServer::OnJoin(unsigned sock, Client &c, std::vector<std::string> const &p) {
  if (p.size() < 2) {
    Send(sock, "461 JOIN :Not enough parameters");
    return;
  }
  if (!ValidName(p[1], true)) {
    Send(sock, "403 " + p[1] + " :No such channel");
    return;
  }
  std::string const name = Fold(p[1]);
  if (!c.channels.insert(name).second)
    return;  // already a member: nothing to announce
  std::set<unsigned> &members = channels_[name];
  members.insert(sock);
  std::string const line = ":" + c.nick + " JOIN " + p[1];
  for (unsigned s : members)
    Send(s, line);
}

void ChatServer::OnPrivmsg(unsigned sock, Client &c, std::vector<std::string> const &p) {
  if (p.size() < 3) {
    Send(sock, "461 PRIVMSG :Not enough parameters");
    return;
  }
  std::string const &target = p[1];
  std::string const line = ":" + c.nick + " PRIVMSG " + target + " :" + p[2];
  if (!target.empty() && target[0] == '#') {
    auto it = channels_.find(Fold(target));
    if (it == channels_.end()) {
      Send(sock, "401 " + target + " :No such nick/channel");
    } else if (!it->second.count(sock)) {
      Send(sock, "404 " + target + " :Cannot send to channel");
    } else {
      for (unsigned s : it->second) {
        if (s != sock)
          Send(s, line);
      }
    }
    return;
  }
  auto it = nicks_.find(Fold(target));
  if (it == nicks_.end())
    Send(sock, "401 " + target + " :No such nick/channel");
  else
    Send(it->second, line);
}

int ChatServer::OnSockSrvIdle(unsigned sock) {
  Send(sock, "PING :chat");
  return 1;
}

void ChatServer::OnSockSrvClose(unsigned sock) {
  std::lock_guard<std::mutex> g(state_);
  auto it = clients_.find(sock);
  if (it == clients_.end())
    return;  // closed before it sent anything
  Client const &c = it->second;
  if (!c.nick.empty()) {
    ToChannelMates(c, ":" + c.nick + " QUIT :" + c.quitReason, sock);
    nicks_.erase(Fold(c.nick));
  }
  for (auto const &name : c.channels) {
    auto ch = channels_.find(name);
    if (ch == channels_.end())
      continue;
    ch->second.erase(sock);
    if (ch->second.empty())
      channels_.erase(ch);
  }
  clients_.erase(it);
}

}  // namespace examples

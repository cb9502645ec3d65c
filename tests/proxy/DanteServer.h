// A dante-server instance on 127.0.0.1 for one test: generated config in a
// scratch folder, a free port, started in the foreground, stopped by PID.
// With a user name it requires the username method and creates that
// throwaway system account (dante checks system accounts), removed again
// at the end.
#pragma once

#include "FakeProxy.h"
#include "file/TempDir.h"

#include <dirent.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace proxytest {

constexpr char kDanted[] = "/usr/sbin/danted";

class DanteServer {
public:
  // user empty: no authentication.
  bool Start(std::string const &user = "", std::string const &password = "") {
    if (!user.empty() && !AddUser(user, password))
      return false;
    for (int attempt = 0; attempt < 3; ++attempt) {  // the free port may be taken meanwhile
      port_ = FreePort();
      std::string conf = dir_.Write("sockd.conf", Config(!user.empty()));
      if (daemon_.Start({kDanted, "-f", conf, "-p", dir_ / "sockd.pid"}, port_))
        return true;
    }
    return false;
  }
  ~DanteServer() {
    daemon_.Stop();
    if (!user_.empty())
      Run("userdel " + user_ + " >/dev/null 2>&1");
  }
  int port() const { return port_; }
  std::string Log() const { return ReadFile(dir_ / "sockd.log"); }

  // Ports on 127.0.0.1 that the daemon or its children listen on, other
  // than the SOCKS port: where a BIND waits for its peer.
  std::set<int> BindPorts() const {
    std::set<std::string> inodes;
    for (int pid : Family())
      for (auto const &ino : SocketInodes(pid))
        inodes.insert(ino);
    std::set<int> ports;
    std::ifstream tcp("/proc/net/tcp");
    std::string line;
    std::getline(tcp, line);
    while (std::getline(tcp, line)) {
      std::istringstream f(line);
      std::string slot, local, remote, state, queues, timer, retr, uid, timeout, inode;
      f >> slot >> local >> remote >> state >> queues >> timer >> retr >> uid >> timeout >> inode;
      if (state != "0A" || local.rfind("0100007F:", 0) != 0 || !inodes.count(inode))
        continue;
      int p = static_cast<int>(std::stoul(local.substr(9), nullptr, 16));
      if (p != port_)
        ports.insert(p);
    }
    return ports;
  }

private:
  std::string Config(bool username) const {
    return "logoutput: " + (dir_ / "sockd.log") + "\n" + "internal: 127.0.0.1 port = " + std::to_string(port_) +
           "\nexternal: 127.0.0.1\nclientmethod: none\nsocksmethod: " + (username ? "username" : "none") +
           "\nuser.privileged: root\nuser.unprivileged: nobody\n"
           "client pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }\n"
           "socks pass { from: 127.0.0.0/8 to: 0.0.0.0/0 "
           "command: connect bind bindreply udpassociate udpreply }\n";
  }
  static int Run(std::string const &cmd) { return std::system(cmd.c_str()); }
  bool AddUser(std::string const &user, std::string const &password) {
    if (::geteuid() != 0)
      return false;
    // useradd refuses while another process holds the account files; retry
    // for a while.
    // A test killed before its clean-up may have left the account behind.
    Run("userdel " + user + " >/dev/null 2>&1");
    auto end = Clock::now() + kDeadline;
    while (Run("useradd -M -N -s /usr/sbin/nologin " + user + " >/dev/null 2>&1") != 0) {
      if (Clock::now() > end)
        return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));  // polling the lock, bounded by end
    }
    user_ = user;
    std::FILE *p = ::popen("chpasswd", "w");
    if (!p)
      return false;
    std::fprintf(p, "%s:%s\n", user.c_str(), password.c_str());
    return ::pclose(p) == 0;
  }
  // The daemon's process and all its descendants.
  std::set<int> Family() const {
    std::vector<std::pair<int, int>> all;  // (pid, parent)
    DIR *d = ::opendir("/proc");
    while (dirent *e = d ? ::readdir(d) : nullptr) {
      int pid = std::atoi(e->d_name);
      if (pid <= 0)
        continue;
      std::ifstream st("/proc/" + std::to_string(pid) + "/stat");
      std::string rest;
      std::getline(st, rest);
      auto close = rest.rfind(')');
      if (close == std::string::npos)
        continue;
      std::istringstream f(rest.substr(close + 2));
      char state;
      int ppid = 0;
      f >> state >> ppid;
      all.emplace_back(pid, ppid);
    }
    if (d)
      ::closedir(d);
    std::set<int> family{daemon_.pid()};
    for (size_t before = 0; before != family.size();) {
      before = family.size();
      for (auto const &[pid, ppid] : all)
        if (family.count(ppid))
          family.insert(pid);
    }
    return family;
  }
  static std::set<std::string> SocketInodes(int pid) {
    std::set<std::string> out;
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR *d = ::opendir(dir.c_str());
    while (dirent *e = d ? ::readdir(d) : nullptr) {
      char target[64] = {};
      std::string link = dir + "/" + e->d_name;
      ssize_t n = ::readlink(link.c_str(), target, sizeof(target) - 1);
      std::string t(target, n > 0 ? static_cast<size_t>(n) : 0);
      if (t.rfind("socket:[", 0) == 0)
        out.insert(t.substr(8, t.size() - 9));
    }
    if (d)
      ::closedir(d);
    return out;
  }

  testutil::TempDir dir_;
  PeerProcess daemon_;
  int port_ = 0;
  std::string user_;
};

}  // namespace proxytest

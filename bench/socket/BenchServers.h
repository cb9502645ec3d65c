// The two servers the socket-core benchmarks drive: a SocketCtrl listener
// in text mode and a libevent listener with one bufferevent line reader per
// connection. Each listens on 127.0.0.1 (port picked by the system), counts
// accepted connections, closed ones and received lines, and answers nothing.
// Step runs one dispatch step on the caller's thread; the counters may be
// read from any thread.
#pragma once

#include <sharedlib.h>

#include <atomic>
#include <memory>
#include <unordered_set>

struct event_base;
struct evconnlistener;
struct bufferevent;
struct sockaddr;

namespace sockbench {

class BenchServer {
public:
  virtual ~BenchServer() = default;
  virtual int Port() const = 0;
  // One dispatch step: waits up to about a second for something to happen
  // (wait), or not at all.
  virtual void Step(bool wait) = 0;
  std::atomic<int> accepted{0};
  std::atomic<int> closed{0};
  std::atomic<long> lines{0};
};

class SocketCtrlServer final : public BenchServer, private ISocketCtrl {
public:
  SocketCtrlServer();
  int Port() const override { return port_; }
  void Step(bool wait) override;

private:
  int connectCallback(SocketCtrl *, unsigned, unsigned) override;
  int acceptCallback(SocketCtrl *, unsigned, char *, unsigned) override;
  void closeCallback(SocketCtrl *, unsigned, char const *) override;
  SocketCtrl ctrl_;
  int port_ = 0;
};

class LibeventServer final : public BenchServer {
public:
  LibeventServer();
  ~LibeventServer() override;
  int Port() const override { return port_; }
  void Step(bool wait) override;

private:
  static void OnAccept(evconnlistener *, int fd, sockaddr *, int, void *arg);
  static void OnRead(bufferevent *b, void *arg);
  static void OnEvent(bufferevent *b, short what, void *arg);
  event_base *base_;
  evconnlistener *listener_ = nullptr;
  std::unordered_set<bufferevent *> open_;
  int port_ = 0;
};

}  // namespace sockbench

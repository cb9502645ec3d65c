#include "EchoServers.h"

#include "platform/Clock.h"
#include "server/SockSrv.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cstdlib>
#include <cstring>

namespace {

class Echo final : public ISockSrvCallback {
public:
  SockSrv *srv = nullptr;
  int OnSockSrvData(char const *data, unsigned len, unsigned sock) override {
    srv->write(data, static_cast<int>(len), sock, 1);
    return 1;
  }
  int OnSockSrvIdle(unsigned) override { return 1; }
  void OnSockSrvClose(unsigned) override {}
};

void ReadLines(bufferevent *bev, void *) {
  evbuffer *in = bufferevent_get_input(bev);
  evbuffer *out = bufferevent_get_output(bev);
  size_t n = 0;
  while (char *line = evbuffer_readln(in, &n, EVBUFFER_EOL_CRLF)) {
    evbuffer_add(out, line, n);
    evbuffer_add(out, "\r\n", 2);
    std::free(line);
  }
}

void Events(bufferevent *bev, short what, void *) {
  if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR))
    bufferevent_free(bev);
}

void Accepted(evconnlistener *listener, evutil_socket_t fd, sockaddr *, int, void *) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  bufferevent *bev = bufferevent_socket_new(evconnlistener_get_base(listener), fd, BEV_OPT_CLOSE_ON_FREE);
  bufferevent_setcb(bev, ReadLines, nullptr, Events, nullptr);
  bufferevent_enable(bev, EV_READ | EV_WRITE);
}

struct StopArgs {
  StopCheck stop;
  void *arg;
  event_base *base;
};

void Tick(evutil_socket_t, short, void *p) {
  auto *s = static_cast<StopArgs *>(p);
  if (s->stop(s->arg))
    event_base_loopbreak(s->base);
}

}  // namespace

int RunSockSrvEcho(PortReport report, StopCheck stop, void *arg) {
  Echo echo;
  SockSrv srv(&echo, nullptr, 65535, 1, "bench echo");
  echo.srv = &srv;
  unsigned sock = 0;
  int port = 0;
  if (!srv.IsOk() || !srv.GetSocketCtrl()->listen("TCP", 1024, 0, "127.0.0.1", nullptr, &sock, 0, &port))
    return 1;
  srv.WakeUp();
  report(port, arg);
  while (!stop(arg))
    shared::platform::SleepMs(100);
  return 0;
}

int RunLibeventEcho(PortReport report, StopCheck stop, void *arg) {
  event_base *base = event_base_new();
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  evconnlistener *listener = evconnlistener_new_bind(base, Accepted, nullptr,
                                                     LEV_OPT_CLOSE_ON_FREE | LEV_OPT_REUSEABLE, 1024,
                                                     reinterpret_cast<sockaddr *>(&sin), sizeof sin);
  if (!listener)
    return 1;
  sockaddr_in bound{};
  socklen_t len = sizeof bound;
  getsockname(evconnlistener_get_fd(listener), reinterpret_cast<sockaddr *>(&bound), &len);
  report(ntohs(bound.sin_port), arg);
  StopArgs s{stop, arg, base};
  event *tick = event_new(base, -1, EV_PERSIST, Tick, &s);
  timeval every{0, 100000};
  event_add(tick, &every);
  event_base_dispatch(base);
  event_free(tick);
  evconnlistener_free(listener);
  event_base_free(base);
  return 0;
}

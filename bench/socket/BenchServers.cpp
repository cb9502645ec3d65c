#include "BenchServers.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>

namespace sockbench {

SocketCtrlServer::SocketCtrlServer() : ctrl_(nullptr, 0, 0, 0, 1, "bench") {
  ctrl_.SetTxtMode();
  unsigned ls = 0;
  if (ctrl_.listen("tcp", 1024, 0, "127.0.0.1", nullptr, &ls, 0, &port_) != 1)
    port_ = 0;
}

void SocketCtrlServer::Step(bool wait) { ctrl_.accept(this, wait ? 1 : 0); }

int SocketCtrlServer::connectCallback(SocketCtrl *, unsigned, unsigned) {
  accepted.fetch_add(1, std::memory_order_relaxed);
  return 1;
}

int SocketCtrlServer::acceptCallback(SocketCtrl *, unsigned, char *, unsigned) {
  lines.fetch_add(1, std::memory_order_relaxed);
  return 1;
}

void SocketCtrlServer::closeCallback(SocketCtrl *, unsigned, char const *) {
  closed.fetch_add(1, std::memory_order_relaxed);
}

LibeventServer::LibeventServer() : base_(event_base_new()) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  listener_ = evconnlistener_new_bind(base_, &LibeventServer::OnAccept, this, LEV_OPT_CLOSE_ON_FREE, 1024,
                                      reinterpret_cast<sockaddr *>(&a), sizeof a);
  socklen_t len = sizeof a;
  if (listener_ != nullptr &&
      ::getsockname(evconnlistener_get_fd(listener_), reinterpret_cast<sockaddr *>(&a), &len) == 0)
    port_ = ntohs(a.sin_port);
}

LibeventServer::~LibeventServer() {
  for (bufferevent *b : open_)
    bufferevent_free(b);
  if (listener_ != nullptr)
    evconnlistener_free(listener_);
  event_base_free(base_);
}

void LibeventServer::Step(bool wait) { event_base_loop(base_, wait ? EVLOOP_ONCE : EVLOOP_NONBLOCK); }

void LibeventServer::OnAccept(evconnlistener *, int fd, sockaddr *, int, void *arg) {
  auto *self = static_cast<LibeventServer *>(arg);
  bufferevent *b = bufferevent_socket_new(self->base_, fd, BEV_OPT_CLOSE_ON_FREE);
  bufferevent_setcb(b, &LibeventServer::OnRead, nullptr, &LibeventServer::OnEvent, self);
  bufferevent_enable(b, EV_READ);
  self->open_.insert(b);
  self->accepted.fetch_add(1, std::memory_order_relaxed);
}

void LibeventServer::OnRead(bufferevent *b, void *arg) {
  auto *self = static_cast<LibeventServer *>(arg);
  evbuffer *in = bufferevent_get_input(b);
  while (char *line = evbuffer_readln(in, nullptr, EVBUFFER_EOL_CRLF)) {
    std::free(line);
    self->lines.fetch_add(1, std::memory_order_relaxed);
  }
}

void LibeventServer::OnEvent(bufferevent *b, short what, void *arg) {
  if ((what & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) == 0)
    return;
  auto *self = static_cast<LibeventServer *>(arg);
  self->open_.erase(b);
  bufferevent_free(b);
  self->closed.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace sockbench

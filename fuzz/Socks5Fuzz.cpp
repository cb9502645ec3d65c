// Plays a SOCKS5 proxy that answers with arbitrary bytes. The client talks
// over a socket pair: the input (after two control bytes) is the whole
// stream the proxy sends, then the proxy's side stops sending, so every
// read ends. Control byte 0 picks credentials and the requests, byte 1 the
// size of the address buffer. UDP ASSOCIATE is left out: it would open a
// datagram socket towards (and resolve) whatever the input names.
#include "proxy/Socks5.h"
#include "socket/SocketCtrl.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

void Check(bool ok) {
  if (!ok)
    __builtin_trap();
}

// Requests per input: their bytes must fit the pair's buffer unread.
constexpr int kMaxRequests = 8;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  if (size < 2)
    return 0;
  std::uint8_t const plan = data[0];
  unsigned const addrSize = data[1] % 40;
  data += 2;
  size -= 2;

  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0)
    return 0;
  ::fcntl(pair[1], F_SETFL, O_NONBLOCK);
  for (std::size_t off = 0; off < size;) {
    ssize_t w = ::write(pair[1], data + off, size - off);
    if (w <= 0)
      break;  // the rest does not fit; the client sees the stream end there
    off += static_cast<std::size_t>(w);
  }
  ::shutdown(pair[1], SHUT_WR);

  {
    SocketCtrl ctrl(nullptr, 1, 0, 1, 0, "fuzz");
    ctrl.AddActiveSock(static_cast<unsigned>(pair[0]));
    ctrl.SetMasterSocket(static_cast<unsigned>(pair[0]));
    Socks5 s(&ctrl);
    bool const creds = plan & 1;
    if (s.connect("127.0.0.1", 1080, creds ? "user" : nullptr, creds ? "secret" : nullptr, nullptr, nullptr)) {
      Check(s.IsAuthOk() == 1);
      char addr[41];
      std::memset(addr, 'x', sizeof(addr));
      addr[40] = '\0';
      for (int i = 0; i < kMaxRequests; ++i) {
        unsigned short port = 1;
        switch ((plan >> 1) + i & 3) {
          case 0:
            s.xconnect("target.example", 443);
            break;
          case 1:
            // Whatever the replies say, the text fits the size given.
            s.xbind(7000, "10.0.0.1", &port, addr, addrSize);
            Check(std::strlen(addr) <= addrSize);
            break;
          case 2:
            s.xconnecthttp("10.0.0.1", 80, "h2.example", 81, "", 0);
            break;
          default:
            s.xconnect("", 0);
            break;
        }
        Check(s.IsAuthOk() == 1);  // a failed request keeps the negotiation
      }
    }
  }  // the controller closes its end
  ::close(pair[1]);
  return 0;
}

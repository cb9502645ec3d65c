// Port mapping through the UPnP IGD client library (miniupnpc), linked
// privately: discovery over SSDP, then SOAP calls on the gateway's WAN
// connection service. Its headers stay out of UPnP.h.
#include "socket/UPnP.h"

#include "text/TextRoutines.h"

#include <miniupnpc/miniupnpc.h>
#include <miniupnpc/upnpcommands.h>

#include <mutex>
#include <string>

namespace {

constexpr int kDiscoverMs = 2000;
// One search only: every gateway answers a search for the first version of
// its device type, and the library's default list would wait kDiscoverMs
// for each of four types when there is no gateway.
char const *const kGatewayTypes[] = {"urn:schemas-upnp-org:device:InternetGatewayDevice:1", nullptr};
constexpr unsigned char kSsdpTtl = 2;
constexpr int kMaxPort = 65535;
// UPNP_GetValidIGD: 1 a connected gateway; 2 a gateway that calls itself not
// connected, which is what one with a private external address reports.
constexpr int kIgdConnected = 1;
constexpr int kIgdNotConnected = 2;

struct Gateway {
  bool known = false;
  std::string controlUrl;   // guarded by gMutex
  std::string serviceType;  // guarded by gMutex
  std::string lanAddr;      // guarded by gMutex
};

std::mutex gMutex;  // serialises every call; guards gGateway
Gateway gGateway;

bool Discover(Gateway *gw) {
  gw->known = false;
  int err = 0;
  UPNPDev *devices = upnpDiscoverDevices(kGatewayTypes, kDiscoverMs, nullptr, nullptr,
                                         UPNP_LOCAL_PORT_ANY, 0, kSsdpTtl, &err, 0);
  if (devices == nullptr)
    return false;
  UPNPUrls urls{};
  IGDdatas data{};
  char lan[64] = {0};
  int igd = UPNP_GetValidIGD(devices, &urls, &data, lan, sizeof(lan));
  freeUPNPDevlist(devices);
  if (igd == kIgdConnected || igd == kIgdNotConnected) {
    gw->controlUrl = urls.controlURL ? urls.controlURL : "";
    gw->serviceType = data.first.servicetype;
    gw->lanAddr = lan;
    gw->known = !gw->controlUrl.empty();
  }
  // Frees what UPNP_GetValidIGD allocated, also when it found no gateway.
  FreeUPNPUrls(&urls);
  return gw->known;
}

// Runs command(gateway) on the remembered gateway, discovering one when none
// is remembered, and once more when the remembered one does not answer
// (miniupnpc's negative codes are transport or parse failures; positive ones
// are the gateway's own refusals and are final). -1 when no gateway exists.
template <typename Command>
int OnGateway(Command command) {
  if (!gGateway.known && !Discover(&gGateway))
    return -1;
  int r = command(gGateway);
  if (r < 0) {
    if (!Discover(&gGateway))
      return -1;
    r = command(gGateway);
  }
  return r;
}

bool ValidPort(int port) { return port >= 1 && port <= kMaxPort; }

std::string PortText(int port) { return std::to_string(port); }

}  // namespace

int AdduPnPPort(char const *protocol, char const *internalClient, int port, char const *description) {
  if (comp_branco(protocol) || comp_branco(internalClient) || !ValidPort(port))
    return 0;
  std::string const ext = PortText(port);
  char const *desc = description ? description : "";
  std::lock_guard<std::mutex> lock(gMutex);
  int r = OnGateway([&](Gateway const &gw) {
    UPNP_DeletePortMapping(gw.controlUrl.c_str(), gw.serviceType.c_str(), ext.c_str(), protocol,
                           nullptr);
    // Lease "0": no time limit (a gateway may cap it at its own maximum).
    return UPNP_AddPortMapping(gw.controlUrl.c_str(), gw.serviceType.c_str(), ext.c_str(),
                               ext.c_str(), internalClient, desc, protocol, nullptr, "0");
  });
  return r == UPNPCOMMAND_SUCCESS ? 1 : 0;
}

int ResetuPnP(char const *protocol, int port) {
  if (comp_branco(protocol) || !ValidPort(port))
    return 0;
  std::string const ext = PortText(port);
  std::lock_guard<std::mutex> lock(gMutex);
  int r = OnGateway([&](Gateway const &gw) {
    int d = UPNP_DeletePortMapping(gw.controlUrl.c_str(), gw.serviceType.c_str(), ext.c_str(),
                                   protocol, nullptr);
    // The gateway's refusal (no such mapping) still means it was reached.
    return d < 0 ? d : UPNPCOMMAND_SUCCESS;
  });
  return r == UPNPCOMMAND_SUCCESS ? 1 : 0;
}

int GetuPnPLocalIP(char *ip, unsigned int size) {
  if (ip == nullptr || size == 0)
    return 0;
  ip[0] = '\0';
  std::lock_guard<std::mutex> lock(gMutex);
  // One cheap call proves the remembered gateway still answers, so a stale
  // LAN address is never handed out.
  char external[40] = {0};
  int r = OnGateway([&](Gateway const &gw) {
    int e = UPNP_GetExternalIPAddress(gw.controlUrl.c_str(), gw.serviceType.c_str(), external);
    return e < 0 ? e : UPNPCOMMAND_SUCCESS;
  });
  if (r != UPNPCOMMAND_SUCCESS)
    return 0;
  ajusta_str(gGateway.lanAddr.c_str(), ip, static_cast<int>(size));
  return 1;
}

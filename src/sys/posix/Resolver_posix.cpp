// The name service and network interfaces on POSIX: getaddrinfo and getnameinfo restricted to
// IPv4, inet_pton, gethostname and getifaddrs (link-layer addresses from Linux packet sockets).
#include "sys/Resolver.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>

namespace Veskan {
namespace Sys {

namespace {

std::atomic<int> lookups{0};

struct AddrInfoDeleter {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using AddrInfoList = std::unique_ptr<addrinfo, AddrInfoDeleter>;

struct IfAddrsDeleter {
  void operator()(ifaddrs* list) const { freeifaddrs(list); }
};
using InterfaceList = std::unique_ptr<ifaddrs, IfAddrsDeleter>;

InterfaceList Interfaces() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return InterfaceList();
  return InterfaceList(list);
}

std::string DottedText(const in_addr& address) {
  char text[INET_ADDRSTRLEN] = {};
  if (!inet_ntop(AF_INET, &address, text, sizeof text)) return std::string();
  return text;
}

}  // namespace

std::string DottedAddress(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::string();
  return DottedText(address);
}

bool LookUpName(const std::string& name, HostAnswer& answer) {
  lookups.fetch_add(1, std::memory_order_relaxed);
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;  // one entry per address, not one per socket type
  hints.ai_flags = AI_CANONNAME;
  addrinfo* found = nullptr;
  if (getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0) return false;
  const AddrInfoList list(found);

  HostAnswer result;
  for (const addrinfo* entry = list.get(); entry; entry = entry->ai_next) {
    if (entry->ai_canonname && result.name.empty()) result.name = entry->ai_canonname;
    if (entry->ai_family != AF_INET || !entry->ai_addr) continue;
    const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
    const std::string text = DottedText(address->sin_addr);
    if (text.empty()) continue;
    if (std::find(result.addresses.begin(), result.addresses.end(), text) ==
        result.addresses.end()) {
      result.addresses.push_back(text);
    }
  }
  if (result.addresses.empty()) return false;
  answer = std::move(result);
  return true;
}

bool LookUpAddress(const std::string& dotted, HostAnswer& answer) {
  lookups.fetch_add(1, std::memory_order_relaxed);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  if (inet_pton(AF_INET, dotted.c_str(), &address.sin_addr) != 1) return false;
  char name[NI_MAXHOST] = {};
  if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), sizeof address, name, sizeof name,
                  nullptr, 0, NI_NAMEREQD) != 0) {
    return false;
  }
  answer.name = name;
  answer.addresses.assign(1, DottedText(address.sin_addr));
  return true;
}

int LookupCount() {
  return lookups.load(std::memory_order_relaxed);
}

std::string HostName() {
  char name[80] = {};
  if (gethostname(name, sizeof name - 1) != 0) return std::string();
  return name;
}

std::vector<std::string> InterfaceAddresses() {
  std::vector<std::string> addresses;
  const InterfaceList list = Interfaces();
  for (const ifaddrs* entry = list.get(); entry; entry = entry->ifa_next) {
    if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
    if (!(entry->ifa_flags & IFF_UP) || (entry->ifa_flags & IFF_LOOPBACK)) continue;
    const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
    std::string text = DottedText(address->sin_addr);
    if (!text.empty()) addresses.push_back(std::move(text));
  }
  return addresses;
}

std::vector<std::uint8_t> HardwareAddress() {
  const InterfaceList list = Interfaces();
  for (const ifaddrs* entry = list.get(); entry; entry = entry->ifa_next) {
    if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_PACKET) continue;
    if (entry->ifa_flags & IFF_LOOPBACK) continue;
    const auto* link = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
    if (link->sll_halen != 6) continue;
    return std::vector<std::uint8_t>(link->sll_addr, link->sll_addr + 6);
  }
  return std::vector<std::uint8_t>();
}

}  // namespace Sys
}  // namespace Veskan

// The system's name service and network interfaces, for IPv4: the operating system's side of
// Address.
#ifndef VESKAN_SYS_RESOLVER_H
#define VESKAN_SYS_RESOLVER_H

#include <cstdint>
#include <string>
#include <vector>

namespace Veskan {
namespace Sys {

// What the name service answered: the official name (may be empty) and the dotted IPv4
// addresses in the order of the answer, without repeats.
struct HostAnswer {
  std::string name;
  std::vector<std::string> addresses;
};

// The canonical dotted text of `text` when it is a dotted IPv4 address ("a.b.c.d", decimal);
// empty otherwise. Makes no lookup.
std::string DottedAddress(const std::string& text);

// Looks up the IPv4 addresses and the official name of the host `name` (UTF-8). False, with
// `answer` untouched, when the lookup fails or gives no IPv4 address.
bool LookUpName(const std::string& name, HostAnswer& answer);

// Looks up the name of the dotted IPv4 address `dotted` (reverse lookup); the answer's list holds
// that address. False, with `answer` untouched, when the address has no name or is not dotted.
bool LookUpAddress(const std::string& dotted, HostAnswer& answer);

// The number of LookUpName and LookUpAddress calls made by the process so far. Thread-safe.
int LookupCount();

// The machine's host name (UTF-8, at most 79 bytes); empty when the system does not tell.
std::string HostName();

// The IPv4 addresses of the network interfaces that are up and not loopback, in the order the
// system lists them.
std::vector<std::string> InterfaceAddresses();

// The link-layer address of the first interface that is not loopback and has a 6-byte one; empty
// when there is none.
std::vector<std::uint8_t> HardwareAddress();

}  // namespace Sys
}  // namespace Veskan

#endif

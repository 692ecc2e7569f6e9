// Address, a host resolved into its name and IPv4 addresses, and the machine's hardware address.
#ifndef VESKAN_ADDRESS_H
#define VESKAN_ADDRESS_H

#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

#include <string>
#include <vector>

namespace Veskan {

// A host given as a name or a dotted IPv4 address, resolved at construction into a name and a
// list of dotted IPv4 addresses. "localhost", "127.0.0.1" and "*" denote this machine: its list
// holds the IPv4 addresses of its network interfaces that are up and not loopback, in the order
// the system lists them, followed by "127.0.0.1".
//
// The parts are read through constant reference members bound to the object's own values.
//
// Thread safety: a value; concurrent const use is safe. Construction may block on the system's
// name service.
class VESKAN_API Address {
 public:
  // The option that makes the constructor skip every lookup it can do without: a local host keeps
  // the machine's host name, and a dotted address is taken as it is.
  static const char16_t* const NslookupOnlyIfNeeded;  // "nslookup only if needed"

  // Dotted IPv4 texts in the order found.
  class VESKAN_API AddressList {
   public:
    int Count() const { return static_cast<int>(entries_.size()); }
    // A copy of the entry at `index`; the empty string for a bad index.
    StringBuffer operator[](int index) const;

   private:
    friend class Address;
    void Add(const StringBuffer& address);
    void Add(const char16_t* address);

    std::vector<StringBuffer> entries_;
  };

  // Resolves `host` (null: empty) for `port`. `option` (null: empty) is NslookupOnlyIfNeeded, or
  // when otherwise not empty the known dotted address of a dotted `host`, which is then listed
  // instead of the host. A local host lists the machine's addresses (above) and is named by its
  // host name, which without an option becomes the official name the name service gives for it.
  // A dotted host is named by a reverse lookup (not made with NslookupOnlyIfNeeded); any other
  // host is looked up by name, keeping the official name and the addresses in the order of the
  // answer. A lookup that fails, and an empty host, leave the list empty and Resolved false.
  Address(const char16_t* host, int port, const char16_t* option);
  Address(const Address& other);
  Address& operator=(const Address& other);
  virtual ~Address();

  // True when an address of one list equals (exact text) an address of the other; two empty
  // lists are not equal.
  bool operator==(const Address& other) const;
  bool operator!=(const Address& other) const { return !(*this == other); }

  // The first interface's link-layer address that is 6 bytes long and not loopback, as lower-case
  // hexadecimal byte pairs joined by "-" ("0a-1b-2c-3d-4e-5f"); without one a fresh NewId().
  static StringBuffer LocalMachineHardwareAddress();

  const StringBuffer& Name;      // the name as resolved, else as given
  const AddressList& Addresses;  // dotted IPv4 texts
  const int& Port;               // as given
  const bool& IsLocal;           // the host denotes this machine
  const bool& Resolved;          // the list was filled

 private:
  Address();
  void ResolveLocal(bool useNameService);
  void ResolveDotted(const StringBuffer& dotted, const StringBuffer& option, bool onlyIfNeeded);
  void ResolveName(const StringBuffer& host);
  // Appends dotted texts found by a lookup or on the interfaces.
  void AddFound(const std::vector<std::string>& addresses);

  StringBuffer name_;
  AddressList addresses_;
  int port_ = 0;
  bool isLocal_ = false;
  bool resolved_ = false;
};

}  // namespace Veskan

#endif

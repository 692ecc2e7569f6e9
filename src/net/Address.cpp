// Address: host resolution and the machine's hardware address.
#include <veskan/Address.h>

#include <veskan/Logger.h>

#include "sys/Resolver.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace Veskan {

namespace {

constexpr const char* Method = "Veskan::Address::Address";

}  // namespace

const char16_t* const Address::NslookupOnlyIfNeeded = u"nslookup only if needed";

StringBuffer Address::AddressList::operator[](int index) const {
  if (index < 0 || index >= Count()) return StringBuffer();
  return entries_[static_cast<std::size_t>(index)];
}

void Address::AddressList::Add(const StringBuffer& address) {
  entries_.push_back(address);
}

void Address::AddressList::Add(const char16_t* address) {
  entries_.emplace_back(address);
}

Address::Address()
    : Name(name_), Addresses(addresses_), Port(port_), IsLocal(isLocal_), Resolved(resolved_) {}

Address::Address(const char16_t* host, int port, const char16_t* option) : Address() {
  const StringBuffer hostText(host);
  const StringBuffer optionText(option);
  const bool onlyIfNeeded = optionText == NslookupOnlyIfNeeded;
  port_ = port;
  name_ = hostText;
  Logger::Line(Logger::Severity::Trace, Method) << " Host: " << hostText << " Port: " << port;

  if (hostText == u"localhost" || hostText == u"127.0.0.1" || hostText == u"*") {
    ResolveLocal(optionText.isEmpty());
    return;
  }
  const std::string dotted = Sys::DottedAddress(hostText.ToUTF8());
  if (!dotted.empty()) {
    ResolveDotted(StringBuffer(dotted), optionText, onlyIfNeeded);
  } else {
    ResolveName(hostText);
  }
}

void Address::ResolveLocal(bool useNameService) {
  isLocal_ = true;
  name_ = u"localhost";
  const std::string hostName = Sys::HostName();
  if (!hostName.empty()) name_ = StringBuffer(hostName);
  if (useNameService && !hostName.empty()) {
    Sys::HostAnswer answer;
    if (Sys::LookUpName(hostName, answer) && !answer.name.empty()) {
      name_ = StringBuffer(answer.name);
    }
  }
  Logger::Line(Logger::Severity::Trace, Method) << " localhost: " << name_;
  AddFound(Sys::InterfaceAddresses());
  addresses_.Add(u"127.0.0.1");
  resolved_ = true;
}

void Address::ResolveDotted(const StringBuffer& dotted, const StringBuffer& option,
                            bool onlyIfNeeded) {
  // Without a lookup: the address as given, or the known address of the host.
  if (onlyIfNeeded || !option.isEmpty()) {
    const StringBuffer& address = onlyIfNeeded ? dotted : option;
    Logger::Line(Logger::Severity::Trace, Method) << " Copy IP: " << address;
    addresses_.Add(address);
    resolved_ = true;
    return;
  }
  Sys::HostAnswer answer;
  if (!Sys::LookUpAddress(dotted.ToUTF8(), answer)) return;
  if (!answer.name.empty()) name_ = StringBuffer(answer.name);
  AddFound(answer.addresses);
  resolved_ = addresses_.Count() > 0;
}

void Address::ResolveName(const StringBuffer& host) {
  Sys::HostAnswer answer;
  if (host.isEmpty() || !Sys::LookUpName(host.ToUTF8(), answer)) return;
  if (!answer.name.empty()) name_ = StringBuffer(answer.name);
  AddFound(answer.addresses);
  resolved_ = addresses_.Count() > 0;
}

void Address::AddFound(const std::vector<std::string>& addresses) {
  for (const std::string& address : addresses) {
    const StringBuffer text(address);
    Logger::Line(Logger::Severity::Trace, Method) << " Found: " << text;
    addresses_.Add(text);
  }
}

Address::Address(const Address& other) : Address() {
  *this = other;
}

Address& Address::operator=(const Address& other) {
  name_ = other.name_;
  addresses_ = other.addresses_;
  port_ = other.port_;
  isLocal_ = other.isLocal_;
  resolved_ = other.resolved_;
  return *this;
}

Address::~Address() = default;

bool Address::operator==(const Address& other) const {
  for (const StringBuffer& mine : addresses_.entries_) {
    for (const StringBuffer& theirs : other.addresses_.entries_) {
      if (mine == theirs) return true;
    }
  }
  return false;
}

StringBuffer Address::LocalMachineHardwareAddress() {
  const std::vector<std::uint8_t> bytes = Sys::HardwareAddress();
  if (bytes.empty()) return NewId();
  std::string text;
  for (const std::uint8_t byte : bytes) {
    char pair[3] = {};
    std::snprintf(pair, sizeof pair, "%02x", byte);
    if (!text.empty()) text += '-';
    text += pair;
  }
  return StringBuffer(text);
}

}  // namespace Veskan

// Address: which hosts are this machine, which lookups each host and option make, the name and the
// list they give; equality, copies and the hardware address. Only "localhost", the machine's own
// host name, dotted addresses and a name under ".invalid" (which never resolves) are looked up.
#include <veskan/Address.h>

#include <veskan/Logger.h>

#include "sys/Resolver.h"

#include "NetTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace Veskan {
namespace {

const char16_t* const OnlyIfNeeded = u"nslookup only if needed";

std::vector<std::string> ListOf(const Address& address) {
  std::vector<std::string> list;
  for (int i = 0; i < address.Addresses.Count(); ++i)
    list.push_back(address.Addresses[i].ToUTF8());
  return list;
}

// The interfaces' addresses, then loopback.
std::vector<std::string> LocalList() {
  std::vector<std::string> list = Sys::InterfaceAddresses();
  list.push_back("127.0.0.1");
  return list;
}

TEST(AddressTest, ResolvesEachKindOfHostWithTheLookupsItNeeds) {
  ASSERT_EQ(StringBuffer(Address::NslookupOnlyIfNeeded), OnlyIfNeeded);
  const std::string hostName = Sys::HostName();
  const std::vector<std::string> local = LocalList();
  const struct {
    const char16_t* host;
    const char16_t* option;
    int lookups;
    bool isLocal;
    bool resolved;
    std::string name;
    std::vector<std::string> list;
  } cases[] = {
      {u"*", OnlyIfNeeded, 0, true, true, hostName, local},
      {u"localhost", OnlyIfNeeded, 0, true, true, hostName, local},
      {u"127.0.0.1", OnlyIfNeeded, 0, true, true, hostName, local},
      {u"localhost", u"203.0.113.7", 0, true, true, hostName, local},
      // Only the three exact texts are this machine.
      {u"127.0.0.2", OnlyIfNeeded, 0, false, true, "127.0.0.2", {"127.0.0.2"}},
      {u"10.1.2.3", OnlyIfNeeded, 0, false, true, "10.1.2.3", {"10.1.2.3"}},
      {u"10.1.2.3", u"192.0.2.77", 0, false, true, "10.1.2.3", {"192.0.2.77"}},
      {u"no-such-host.invalid", nullptr, 1, false, false, "no-such-host.invalid", {}},
      {u"no-such-host.invalid", OnlyIfNeeded, 1, false, false, "no-such-host.invalid", {}},
      {nullptr, nullptr, 0, false, false, "", {}},
  };
  int port = 8080;
  for (const auto& c : cases) {
    SCOPED_TRACE((c.host ? StringBuffer(c.host).ToUTF8() : "(null)") + " " +
                 (c.option ? StringBuffer(c.option).ToUTF8() : "(null)"));
    const int lookups = Sys::LookupCount();
    const Address address(c.host, ++port, c.option);
    EXPECT_EQ(c.lookups, Sys::LookupCount() - lookups);
    EXPECT_EQ(c.isLocal, address.IsLocal);
    EXPECT_EQ(c.resolved, address.Resolved);
    EXPECT_EQ(port, address.Port);
    EXPECT_EQ(c.name, address.Name.ToUTF8());
    EXPECT_EQ(c.list, ListOf(address));
    EXPECT_EQ(u"", address.Addresses[address.Addresses.Count()]);
    EXPECT_EQ(u"", address.Addresses[-1]);
  }
  Testing::LoggerLines lines(Logger::Severity::Trace, "Veskan::Address::Address");
  const Address address(u"10.1.2.3", 443, OnlyIfNeeded);
  EXPECT_EQ((std::vector<std::string>{"Trace: Veskan::Address::Address Host: 10.1.2.3 Port: 443",
                                      "Trace: Veskan::Address::Address Copy IP: 10.1.2.3"}),
            lines.Take());
}

TEST(AddressTest, TakesTheNamesTheNameServiceGives) {
  Sys::HostAnswer answer;
  ASSERT_TRUE(Sys::LookUpName("localhost", answer));
  EXPECT_NE(answer.addresses.end(),
            std::find(answer.addresses.begin(), answer.addresses.end(), "127.0.0.1"));
  std::vector<std::string> unique = answer.addresses;
  std::sort(unique.begin(), unique.end());
  EXPECT_EQ(unique.end(), std::unique(unique.begin(), unique.end())) << "no address twice";
  if (Sys::LookUpAddress("127.0.0.1", answer)) {
    EXPECT_FALSE(answer.name.empty());
    EXPECT_EQ(std::vector<std::string>{"127.0.0.1"}, answer.addresses);
  }

  const std::string hostName = Sys::HostName();
  ASSERT_FALSE(hostName.empty());
  if (!Sys::LookUpName(hostName, answer)) GTEST_SKIP() << "the host name does not resolve here";
  // Without an option, localhost is named by the official name of the host name.
  int lookups = Sys::LookupCount();
  const Address localhost(u"localhost", 0, nullptr);
  EXPECT_EQ(lookups + 1, Sys::LookupCount());
  EXPECT_TRUE(localhost.IsLocal);
  EXPECT_EQ(answer.name.empty() ? hostName : answer.name, localhost.Name.ToUTF8());
  EXPECT_EQ(LocalList(), ListOf(localhost));
  // The host name itself is no local text: its answer is kept in order.
  lookups = Sys::LookupCount();
  const Address own(StringBuffer(hostName), 80, nullptr);
  EXPECT_EQ(lookups + 1, Sys::LookupCount());
  EXPECT_FALSE(own.IsLocal);
  EXPECT_EQ(answer.name.empty() ? hostName : answer.name, own.Name.ToUTF8());
  EXPECT_EQ(answer.addresses, ListOf(own));
}

TEST(AddressTest, DottedAddressesAreExactlyFourDecimalBytes) {
  EXPECT_EQ("10.1.2.3", Sys::DottedAddress("10.1.2.3"));
  EXPECT_EQ("255.255.255.255", Sys::DottedAddress("255.255.255.255"));
  for (const char* text : {"", "10.1.2", "256.1.2.3", "a.b.c.d", " 10.1.2.3", "10.1.2.3 ", "::1"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ("", Sys::DottedAddress(text));
  }
}

TEST(AddressTest, AddressesAreEqualWhenTheirListsShareAnAddress) {
  const std::vector<std::string> local = LocalList();
  ASSERT_EQ(local.end(), std::find(local.begin(), local.end(), "203.0.113.9"));
  const Address known(u"10.1.2.3", 80, u"203.0.113.9");
  const Address dotted(u"203.0.113.9", 81, OnlyIfNeeded);
  const Address other(u"203.0.113.10", 80, OnlyIfNeeded);
  const Address star(u"*", 80, OnlyIfNeeded);
  const Address loopback(u"127.0.0.1", 81, OnlyIfNeeded);
  const Address none(nullptr, 0, nullptr);
  const Address alsoNone(nullptr, 0, nullptr);
  const struct {
    const char* name;
    const Address& first;
    const Address& second;
    bool equal;
  } cases[] = {
      {"one address under two names", known, dotted, true},
      {"the other way round", dotted, known, true},
      {"different addresses", known, other, false},
      {"two local hosts", star, loopback, true},
      {"a local host and another", star, dotted, false},
      {"two empty lists", none, alsoNone, false},
      {"an empty list and itself", none, none, false},
      {"an empty list and an address", none, known, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.equal, c.first == c.second);
    EXPECT_EQ(!c.equal, c.first != c.second);
  }
}

TEST(AddressTest, CopiesHoldTheirOwnParts) {
  Address original(u"10.1.2.3", 443, u"203.0.113.9");
  const Address copy(original);
  EXPECT_NE(&copy.Name, &original.Name);
  original = Address(u"*", 80, OnlyIfNeeded);
  EXPECT_TRUE(original.IsLocal);
  EXPECT_EQ(80, original.Port);
  EXPECT_EQ(LocalList(), ListOf(original));
  EXPECT_EQ(u"10.1.2.3", copy.Name);
  EXPECT_EQ(443, copy.Port);
  EXPECT_TRUE(copy.Resolved);
  EXPECT_FALSE(copy.IsLocal);
  EXPECT_EQ(std::vector<std::string>{"203.0.113.9"}, ListOf(copy));
}

TEST(AddressTest, TheHardwareAddressIsTheFirstLinkLayerAddressElseAGeneratedId) {
  const std::vector<std::uint8_t> bytes = Sys::HardwareAddress();
  const StringBuffer first = Address::LocalMachineHardwareAddress();
  const StringBuffer second = Address::LocalMachineHardwareAddress();
  if (bytes.empty()) {
    EXPECT_TRUE(Regex(first, u"[0-9A-V]{25}"));
    EXPECT_NE(second, first);
    return;
  }
  ASSERT_EQ(6u, bytes.size());
  std::string expected;
  for (const std::uint8_t byte : bytes) {
    static const char Digits[] = "0123456789abcdef";
    if (!expected.empty()) expected += '-';
    expected += Digits[byte >> 4];
    expected += Digits[byte & 0xF];
  }
  EXPECT_EQ(expected, first.ToUTF8());
  EXPECT_EQ(first, second);
}

}  // namespace
}  // namespace Veskan

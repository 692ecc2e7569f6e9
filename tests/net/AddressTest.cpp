// Address: local hosts, dotted hosts with and without lookups, names, equality, copies and the
// hardware address. Only "localhost", the machine's own host name, dotted addresses and a name
// under ".invalid" (which never resolves) are looked up.
#include <veskan/Address.h>

#include <veskan/Logger.h>

#include "sys/Resolver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace Veskan {
namespace {

const char16_t* const OnlyIfNeeded = u"nslookup only if needed";

std::vector<std::string> ListOf(const Address& address) {
  std::vector<std::string> list;
  for (int i = 0; i < address.Addresses.Count(); ++i) {
    list.push_back(address.Addresses[i].ToUTF8());
  }
  return list;
}

std::vector<std::string> LocalList() {
  std::vector<std::string> list = Sys::InterfaceAddresses();
  list.push_back("127.0.0.1");
  return list;
}

// Records the lines of Veskan::Address::Address while it lives.
class AddressLines {
 public:
  AddressLines() : threshold_(Logger::Threshold()) {
    Logger::SetThreshold(Logger::Severity::Trace);
    previous_ = Logger::SetSink([this](Logger::Severity::Enumeration, const char* text, int) {
      const std::string line(text);
      if (line.rfind("Veskan::Address::Address", 0) != 0) return;
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line.substr(24));
    });
  }
  ~AddressLines() {
    Logger::SetSink(previous_);
    Logger::SetThreshold(threshold_);
  }
  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  Logger::Severity::Enumeration threshold_;
  Logger::Sink previous_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

TEST(AddressText, OnlyIfNeededOptionHasItsExactText) {
  EXPECT_EQ(StringBuffer(Address::NslookupOnlyIfNeeded), OnlyIfNeeded);
}

TEST(AddressLocal, EveryLocalHostWithOnlyIfNeededListsTheInterfacesThenLoopbackWithoutLookup) {
  for (const char16_t* host : {u"*", u"localhost", u"127.0.0.1"}) {
    SCOPED_TRACE(StringBuffer(host).ToUTF8());
    const int lookups = Sys::LookupCount();
    const Address address(host, 8080, OnlyIfNeeded);
    EXPECT_EQ(Sys::LookupCount(), lookups);
    EXPECT_TRUE(address.IsLocal);
    EXPECT_TRUE(address.Resolved);
    EXPECT_EQ(address.Port, 8080);
    EXPECT_EQ(address.Name.ToUTF8(), Sys::HostName());
    ASSERT_GE(address.Addresses.Count(), 1);
    EXPECT_EQ(address.Addresses[address.Addresses.Count() - 1], u"127.0.0.1");
    EXPECT_EQ(ListOf(address), LocalList());
    const std::vector<std::string> list = ListOf(address);
    EXPECT_EQ(std::count(list.begin(), list.end(), "127.0.0.1"), 1);
  }
}

TEST(AddressLocal, KnownAddressOptionKeepsTheHostNameAndTheMachinesList) {
  const int lookups = Sys::LookupCount();
  const Address address(u"localhost", 80, u"203.0.113.7");
  EXPECT_EQ(Sys::LookupCount(), lookups);
  EXPECT_TRUE(address.IsLocal);
  EXPECT_EQ(address.Name.ToUTF8(), Sys::HostName());
  EXPECT_EQ(ListOf(address), LocalList());
}

TEST(AddressLocal, LocalhostWithoutOptionTakesTheOfficialNameOfTheHostName) {
  const std::string hostName = Sys::HostName();
  ASSERT_FALSE(hostName.empty());
  Sys::HostAnswer answer;
  if (!Sys::LookUpName(hostName, answer) || answer.name.empty()) {
    GTEST_SKIP() << "the machine's host name does not resolve";
  }
  const int lookups = Sys::LookupCount();
  const Address address(u"localhost", 0, nullptr);
  EXPECT_EQ(Sys::LookupCount(), lookups + 1);
  EXPECT_TRUE(address.IsLocal);
  EXPECT_TRUE(address.Resolved);
  EXPECT_EQ(address.Name.ToUTF8(), answer.name);
  EXPECT_EQ(ListOf(address), LocalList());
}

TEST(AddressLocal, OnlyTheThreeExactTextsAreLocal) {
  const Address address(u"127.0.0.2", 0, OnlyIfNeeded);
  EXPECT_FALSE(address.IsLocal);
  EXPECT_EQ(ListOf(address), std::vector<std::string>{"127.0.0.2"});
}

TEST(AddressDotted, OnlyIfNeededListsExactlyTheAddressWithoutLookup) {
  AddressLines lines;
  const int lookups = Sys::LookupCount();
  const Address address(u"10.1.2.3", 443, OnlyIfNeeded);
  EXPECT_EQ(Sys::LookupCount(), lookups);
  EXPECT_FALSE(address.IsLocal);
  EXPECT_TRUE(address.Resolved);
  EXPECT_EQ(address.Name, u"10.1.2.3");
  EXPECT_EQ(address.Port, 443);
  EXPECT_EQ(ListOf(address), std::vector<std::string>{"10.1.2.3"});
  EXPECT_EQ(lines.Lines(),
            (std::vector<std::string>{" Host: 10.1.2.3 Port: 443", " Copy IP: 10.1.2.3"}));
}

TEST(AddressDotted, KnownAddressOptionIsTheOnlyEntry) {
  const int lookups = Sys::LookupCount();
  const Address address(u"10.1.2.3", 80, u"192.0.2.77");
  EXPECT_EQ(Sys::LookupCount(), lookups);
  EXPECT_FALSE(address.IsLocal);
  EXPECT_TRUE(address.Resolved);
  EXPECT_EQ(address.Name, u"10.1.2.3");
  EXPECT_EQ(ListOf(address), std::vector<std::string>{"192.0.2.77"});
}

TEST(AddressDotted, TextsThatAreNotDottedAddresses) {
  EXPECT_EQ(Sys::DottedAddress("10.1.2.3"), "10.1.2.3");
  EXPECT_EQ(Sys::DottedAddress("255.255.255.255"), "255.255.255.255");
  for (const char* text : {"", "10.1.2", "256.1.2.3", "a.b.c.d", " 10.1.2.3", "10.1.2.3 ", "::1"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(Sys::DottedAddress(text), "");
  }
}

TEST(AddressDotted, ReverseLookupOfLoopbackNamesItAndListsIt) {
  Sys::HostAnswer answer;
  const int lookups = Sys::LookupCount();
  if (!Sys::LookUpAddress("127.0.0.1", answer)) GTEST_SKIP() << "127.0.0.1 has no name here";
  EXPECT_EQ(Sys::LookupCount(), lookups + 1);
  EXPECT_FALSE(answer.name.empty());
  EXPECT_EQ(answer.addresses, std::vector<std::string>{"127.0.0.1"});
}

TEST(AddressName, LocalhostResolvesToLoopback) {
  Sys::HostAnswer answer;
  ASSERT_TRUE(Sys::LookUpName("localhost", answer));
  EXPECT_FALSE(answer.name.empty());
  EXPECT_NE(std::find(answer.addresses.begin(), answer.addresses.end(), "127.0.0.1"),
            answer.addresses.end());
  std::vector<std::string> unique = answer.addresses;
  std::sort(unique.begin(), unique.end());
  EXPECT_EQ(std::unique(unique.begin(), unique.end()), unique.end());
}

TEST(AddressName, OwnHostNameKeepsTheAnswerInOrder) {
  const std::string hostName = Sys::HostName();
  ASSERT_FALSE(hostName.empty());
  Sys::HostAnswer answer;
  if (!Sys::LookUpName(hostName, answer))
    GTEST_SKIP() << "the machine's host name does not resolve";
  const int lookups = Sys::LookupCount();
  const Address address(StringBuffer(hostName), 80, nullptr);
  EXPECT_EQ(Sys::LookupCount(), lookups + 1);
  EXPECT_FALSE(address.IsLocal);
  EXPECT_TRUE(address.Resolved);
  EXPECT_EQ(address.Name.ToUTF8(), answer.name.empty() ? hostName : answer.name);
  EXPECT_EQ(ListOf(address), answer.addresses);
}

TEST(AddressName, FailedLookupLeavesTheListEmptyAndTheNameAsGiven) {
  for (const char16_t* option : {static_cast<const char16_t*>(nullptr), OnlyIfNeeded}) {
    SCOPED_TRACE(option ? "only if needed" : "no option");
    const int lookups = Sys::LookupCount();
    const Address address(u"no-such-host.invalid", 80, option);
    EXPECT_EQ(Sys::LookupCount(), lookups + 1);
    EXPECT_FALSE(address.Resolved);
    EXPECT_FALSE(address.IsLocal);
    EXPECT_EQ(address.Name, u"no-such-host.invalid");
    EXPECT_EQ(address.Addresses.Count(), 0);
  }
}

TEST(AddressName, AbsentHostMakesNoLookupAndResolvesNothing) {
  const int lookups = Sys::LookupCount();
  const Address address(nullptr, 0, nullptr);
  EXPECT_EQ(Sys::LookupCount(), lookups);
  EXPECT_FALSE(address.Resolved);
  EXPECT_FALSE(address.IsLocal);
  EXPECT_EQ(address.Name, u"");
  EXPECT_EQ(address.Addresses.Count(), 0);
}

TEST(AddressList, BadIndexGivesEmptyText) {
  const Address address(u"10.1.2.3", 80, OnlyIfNeeded);
  EXPECT_EQ(address.Addresses[0], u"10.1.2.3");
  EXPECT_EQ(address.Addresses[1], u"");
  EXPECT_EQ(address.Addresses[-1], u"");
}

TEST(AddressEquality, SharedAddressTextMakesAddressesEqualWhateverTheirNames) {
  const Address known(u"10.1.2.3", 80, u"203.0.113.9");
  const Address dotted(u"203.0.113.9", 81, OnlyIfNeeded);
  ASSERT_NE(known.Name, dotted.Name);
  EXPECT_TRUE(known == dotted);
  EXPECT_TRUE(dotted == known);
  EXPECT_FALSE(known != dotted);

  const Address other(u"203.0.113.10", 80, OnlyIfNeeded);
  EXPECT_FALSE(known == other);
  EXPECT_TRUE(known != other);
}

TEST(AddressEquality, LocalAddressesShareLoopback) {
  const Address star(u"*", 80, OnlyIfNeeded);
  const Address loopback(u"127.0.0.1", 81, OnlyIfNeeded);
  EXPECT_TRUE(star == loopback);
  const std::vector<std::string> local = LocalList();
  ASSERT_EQ(std::find(local.begin(), local.end(), "203.0.113.9"), local.end());
  EXPECT_TRUE(star != Address(u"203.0.113.9", 80, OnlyIfNeeded));
}

TEST(AddressEquality, EmptyListsAreNeverEqual) {
  const Address first(nullptr, 0, nullptr);
  const Address second(nullptr, 0, nullptr);
  EXPECT_FALSE(first == second);
  EXPECT_TRUE(first != second);
  EXPECT_FALSE(first == first);
  EXPECT_FALSE(first == Address(u"10.1.2.3", 80, OnlyIfNeeded));
}

TEST(AddressCopy, CopiesHoldTheirOwnParts) {
  Address original(u"10.1.2.3", 443, u"203.0.113.9");
  const Address copy(original);
  EXPECT_EQ(copy.Name, u"10.1.2.3");
  EXPECT_EQ(copy.Port, 443);
  EXPECT_TRUE(copy.Resolved);
  EXPECT_FALSE(copy.IsLocal);
  EXPECT_EQ(ListOf(copy), std::vector<std::string>{"203.0.113.9"});
  EXPECT_NE(&copy.Name, &original.Name);

  original = Address(u"*", 80, OnlyIfNeeded);
  EXPECT_TRUE(original.IsLocal);
  EXPECT_EQ(original.Port, 80);
  EXPECT_EQ(ListOf(original), LocalList());
  EXPECT_EQ(copy.Name, u"10.1.2.3");
  EXPECT_EQ(copy.Port, 443);
  EXPECT_FALSE(copy.IsLocal);
  EXPECT_EQ(ListOf(copy), std::vector<std::string>{"203.0.113.9"});
}

TEST(AddressHardware, FirstLinkLayerAddressInLowerCaseHexElseAGeneratedId) {
  const std::vector<std::uint8_t> bytes = Sys::HardwareAddress();
  const StringBuffer first = Address::LocalMachineHardwareAddress();
  const StringBuffer second = Address::LocalMachineHardwareAddress();
  if (!bytes.empty()) {
    ASSERT_EQ(bytes.size(), 6u);
    std::string expected;
    for (const std::uint8_t byte : bytes) {
      static const char Digits[] = "0123456789abcdef";
      if (!expected.empty()) expected += '-';
      expected += Digits[byte >> 4];
      expected += Digits[byte & 0xF];
    }
    EXPECT_EQ(first.ToUTF8(), expected);
    EXPECT_EQ(second, first);
    EXPECT_TRUE(Regex(first, u"[0-9a-f]{2}(-[0-9a-f]{2}){5}"));
  } else {
    EXPECT_EQ(first.length(), 25);
    EXPECT_TRUE(Regex(first, u"[0-9A-V]{25}"));
    EXPECT_NE(second, first);
  }
}

}  // namespace
}  // namespace Veskan

// NetworkPerformanceMonitor: without a plug-in, with a full plug-in and with one that cannot zero.
// The stand-in plug-ins are built beside this test; their paths come from the build.
#include <veskan/Client.h>
#include <veskan/Daemon.h>
#include <veskan/NetworkPerformanceMonitor.h>
#include <veskan/Server.h>

#include "plugin/TestPerformancePlugin.h"
#include "sys/DynamicLibrary.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Veskan {
namespace {

using Counters = NetworkPerformanceMonitor::Counters;

constexpr char FullPlugin[] = VESKAN_TEST_PERFORMANCE_PLUGIN;
constexpr char PluginWithoutZero[] = VESKAN_TEST_PERFORMANCE_PLUGIN_WITHOUT_ZERO;

TEST(NetworkPerformanceMonitorTest, WithoutAPluginNothingIsCounted) {
  // The C library is always there and exports none of the plug-in's functions.
  for (const char* path : {"/nonexistent/folder/libVeskanPerformance.so", "libc.so.6"}) {
    SCOPED_TRACE(path);
    NetworkPerformanceMonitor monitor(u"absent", path);
    EXPECT_FALSE(monitor.Active());
    monitor.Increment(Counters::RequestsReceived, 5);
    monitor.Decrement(Counters::OpenConnections);
    monitor.Reset(Counters::BytesSent);
    monitor.Reset();
  }
  // Whether this machine has the real plug-in decides what the default monitor must do.
  Sys::DynamicLibrary installed;
  const bool pluginInstalled = installed.Open("libVeskanPerformance.so") &&
                               installed.Symbol("VeskanNetworkPerfMon_Create") != nullptr &&
                               installed.Symbol("VeskanNetworkPerfMon_Destroy") != nullptr &&
                               installed.Symbol("VeskanNetworkPerfMon_Inc") != nullptr;
  EXPECT_EQ(pluginInstalled, NetworkPerformanceMonitor(u"default").Active());
}

// Keeps a stand-in plug-in loaded for the test (so that its record outlives the monitors) and
// starts each test with a clean record.
class PerformancePluginTest : public ::testing::Test {
 protected:
  void Load(const char* path) {
    ASSERT_TRUE(plugin_.Open(path)) << plugin_.Error();
    const auto recordOf = reinterpret_cast<VeskanTesting::TestPerformanceRecordFunction>(
        plugin_.Symbol("VeskanTestPerformance_Record"));
    ASSERT_NE(nullptr, recordOf);
    record_ = recordOf();
    record_->failCreate = false;
    record_->createCalls = record_->destroyCalls = 0;
    record_->instanceName[0] = u'x';
    record_->handle = record_->destroyedHandle = 0;
    record_->incCalls = record_->zeroCalls = record_->wrongHandleCalls = 0;
    for (auto& value : record_->values)
      value = 0;
  }

  int Value(Counters::Enumeration counter) const { return record_->values[counter]; }

  Sys::DynamicLibrary plugin_;
  VeskanTesting::TestPerformanceRecord* record_ = nullptr;
};

TEST_F(PerformancePluginTest, AFullPluginCountsZeroesAndIsGivenBackItsInstance) {
  Load(FullPlugin);
  std::uint32_t handle = 0;
  {
    NetworkPerformanceMonitor monitor(u"Veskan Server 1", FullPlugin);
    EXPECT_TRUE(monitor.Active());
    EXPECT_EQ(1, record_->createCalls);
    EXPECT_EQ(std::u16string(u"Veskan Server 1"), std::u16string(record_->instanceName));
    handle = record_->handle;
    EXPECT_NE(0u, handle);

    monitor.Increment(Counters::RequestsReceived, 3);
    monitor.Increment(Counters::BytesSent, 1500);
    monitor.Increment(Counters::BytesSent, 500);
    monitor.Increment(Counters::OpenConnections, 2);
    monitor.Decrement(Counters::OpenConnections);
    monitor.Increment(Counters::ProtocolViolations, -4);
    EXPECT_EQ(3, Value(Counters::RequestsReceived));
    EXPECT_EQ(2000, Value(Counters::BytesSent));
    EXPECT_EQ(1, Value(Counters::OpenConnections));
    EXPECT_EQ(-4, Value(Counters::ProtocolViolations));
    EXPECT_EQ(6, record_->incCalls);

    monitor.Reset(Counters::BytesSent);
    EXPECT_EQ(0, Value(Counters::BytesSent));
    EXPECT_EQ(3, Value(Counters::RequestsReceived));
    monitor.Reset();
    EXPECT_EQ(0, Value(Counters::RequestsReceived));
    EXPECT_EQ(0, Value(Counters::OpenConnections));
    EXPECT_EQ(0, Value(Counters::ProtocolViolations));
    EXPECT_EQ(2, record_->zeroCalls);
    EXPECT_EQ(0, record_->destroyCalls);
  }
  EXPECT_EQ(1, record_->destroyCalls);
  EXPECT_EQ(handle, record_->destroyedHandle);
  EXPECT_EQ(0u, record_->handle);

  // A null instance name is passed as an empty one.
  EXPECT_TRUE(NetworkPerformanceMonitor(nullptr, FullPlugin).Active());
  EXPECT_EQ(std::u16string(), std::u16string(record_->instanceName));
  EXPECT_EQ(0, record_->wrongHandleCalls);

  // A Create that fails leaves the monitor inactive: nothing more is called.
  record_->failCreate = true;
  {
    NetworkPerformanceMonitor monitor(u"refused", FullPlugin);
    EXPECT_FALSE(monitor.Active());
    monitor.Increment(Counters::RequestsReceived, 1);
    monitor.Reset();
  }
  EXPECT_EQ(3, record_->createCalls);
  EXPECT_EQ(6, record_->incCalls);
  EXPECT_EQ(2, record_->zeroCalls);
  EXPECT_EQ(2, record_->destroyCalls);
}

TEST_F(PerformancePluginTest, APluginWithoutZeroStillCountsAndResetDoesNothing) {
  Load(PluginWithoutZero);
  {
    NetworkPerformanceMonitor monitor(u"no zero", PluginWithoutZero);
    EXPECT_TRUE(monitor.Active());
    monitor.Increment(Counters::ConnectionsAccepted, 2);
    monitor.Decrement(Counters::ConnectionsAccepted);
    monitor.Reset(Counters::ConnectionsAccepted);
    monitor.Reset();
    EXPECT_EQ(1, Value(Counters::ConnectionsAccepted));
    EXPECT_EQ(2, record_->incCalls);
    EXPECT_EQ(0, record_->zeroCalls);
  }
  EXPECT_EQ(1, record_->destroyCalls);
  EXPECT_EQ(0, record_->wrongHandleCalls);
}

TEST_F(PerformancePluginTest, WorkersMayCountAtTheSameTime) {
  Load(FullPlugin);
  constexpr int Threads = 4;
  constexpr int Increments = 2000;
  {
    NetworkPerformanceMonitor monitor(u"shared", FullPlugin);
    ASSERT_TRUE(monitor.Active());
    std::vector<std::thread> workers;
    for (int t = 0; t < Threads; ++t) {
      workers.emplace_back([&monitor] {
        for (int i = 0; i < Increments; ++i) {
          monitor.Increment(Counters::BytesReceived, 2);
          monitor.Decrement(Counters::OpenConnections);
        }
      });
    }
    for (std::thread& worker : workers)
      worker.join();
  }
  EXPECT_EQ(Threads * Increments * 2, Value(Counters::BytesReceived));
  EXPECT_EQ(-Threads * Increments, Value(Counters::OpenConnections));
  EXPECT_EQ(0, record_->wrongHandleCalls);
}

TEST_F(PerformancePluginTest, TheEngineCountsConnectionsBothWaysAndLetsReplacedMonitorsGo) {
  Load(FullPlugin);
  Daemon::MonitorPerformance(std::make_shared<NetworkPerformanceMonitor>(u"engine", FullPlugin));
  {
    auto server = std::make_shared<Server>(true, nullptr, nullptr);
    server->MessageReceived.connect([](const std::shared_ptr<Server>&,
                                       const std::shared_ptr<Client>&,
                                       const std::shared_ptr<Message>& message) {
      auto lock = message->Lock();
      message->StatusCode = 204;
    });
    ASSERT_TRUE(server->Start(u"http://127.0.0.1:0/", false));
    std::string url = "http://127.0.0.1:" + std::to_string(server->Port()) + "/";
    auto client = std::make_shared<Client>(true, nullptr, nullptr);
    ASSERT_TRUE(client->Connect(UTF8to16(url.c_str()).getTerminatedBuffer()));
    ASSERT_EQ(ClientStates::Connected, client->BlockUntil(ClientStates::Connected, 10));
    auto message = Message::New();
    message->Open(Methods::GET, UTF8to16(url.c_str()).getTerminatedBuffer());
    {
      auto lock = message->Lock();
      message->Request->Headers.Add(
          Header(StringBuffer(u"Connection"), StringBuffer(u"keep-alive")));
    }
    ASSERT_TRUE(client->Send(message));
    ASSERT_EQ(ReadyStates::Loaded, message->BlockUntil(ReadyStates::Loaded, 10));
    EXPECT_EQ(2, Value(Counters::OpenConnections)) << "the outgoing one and the accepted one";
    client->Disconnect(false);
    EXPECT_EQ(ClientStates::Disconnected, client->BlockUntil(ClientStates::Disconnected, 10));
    server->Stop(1000);
  }
  ASSERT_TRUE(Daemon::WaitForAllThreads(10));
  EXPECT_EQ(0, Value(Counters::OpenConnections));
  EXPECT_EQ(1, Value(Counters::OutgoingConnections));
  EXPECT_EQ(1, Value(Counters::ConnectionsAccepted));
  EXPECT_EQ(2, Value(Counters::ConnectionsClosed));

  // Each monitor attached replaces the one before, which is released.
  Daemon::MonitorPerformance(std::make_shared<NetworkPerformanceMonitor>(u"second", FullPlugin));
  EXPECT_EQ(1, record_->destroyCalls);
  Daemon::MonitorPerformance(nullptr);
  EXPECT_EQ(2, record_->destroyCalls);
  EXPECT_EQ(0, record_->wrongHandleCalls);
}

}  // namespace
}  // namespace Veskan

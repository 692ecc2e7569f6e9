// The shared settings: Preferences and SettingsStore on real SQLite files, bad databases, the
// veskan-settings tool and several processes writing at once.
#include <veskan/Logger.h>
#include <veskan/Preferences.h>
#include <veskan/SettingsStore.h>

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace Veskan {
namespace {

using Testing::ChildProcess;
using Testing::TemporaryFolder;

constexpr const char16_t* Service = Preferences::SoftwareServicePath;
constexpr const char16_t* File = Preferences::File;

// Both hives in a folder of their own for each test.
class SettingsTest : public ::testing::Test {
 protected:
  SettingsTest() {
    setenv("VESKAN_MACHINE_REGISTRY", Machine().c_str(), 1);
    setenv("VESKAN_USER_REGISTRY", (folder_.Path() / "user" / "registry.db").c_str(), 1);
  }
  ~SettingsTest() override { SettingsStore::SetBusyTimeoutMs(5000); }

  std::string Machine() const { return (folder_.Path() / "machine.db").string(); }

  // Runs veskan-settings; its exit status, and its standard output in `out`.
  int Tool(const std::string& arguments, std::string* out = nullptr) {
    FILE* pipe =
        popen((std::string(VESKAN_SETTINGS_TOOL) + " " + arguments + " 2>&1").c_str(), "r");
    std::string text;
    char chunk[512];
    while (pipe && std::fgets(chunk, sizeof chunk, pipe))
      text += chunk;
    const int status = pipe ? pclose(pipe) : -1;
    if (out) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  TemporaryFolder folder_;
};

TEST_F(SettingsTest, ValuesKeepTheirTypeAndHiveAndIgnoreCase) {
  EXPECT_EQ(Preferences::ReadIntegerValue(false, Service, Preferences::SoftwareService::HttpPort,
                                          File, Preferences::SoftwareService::DefaultHttpPort),
            23456);
  ASSERT_TRUE(Preferences::WriteIntegerValue(false, Service, u"HttpPort", File, -2));
  ASSERT_TRUE(Preferences::WriteStringValue(true, Service, u"HttpPort", File, u"Zoë\n"));
  // Case folded in full Unicode, empty names of the path skipped.
  EXPECT_EQ(Preferences::ReadIntegerValue(
                false, u"\\software\\CALVOR TECHNOLOGIES\\\\tallyo\\softwareservice\\", u"HTTPPORT",
                File, 0),
            -2);
  EXPECT_EQ(Preferences::ReadStringValue(true, Service, u"httpport", File, nullptr),
            StringBuffer(u"Zoë\n"));
  ASSERT_TRUE(Preferences::WriteStringValue(true, u"Ärger", u"Straße", File, u"x"));
  EXPECT_EQ(Preferences::ReadStringValue(true, u"äRGER", u"STRASSE", File, u"-"),
            StringBuffer(u"x"));
  // Of another type, or through another store: the default.
  EXPECT_EQ(Preferences::ReadStringValue(false, Service, u"HttpPort", File, u"d"),
            StringBuffer(u"d"));
  EXPECT_EQ(Preferences::ReadIntegerValue(true, Service, u"HttpPort", File, 7), 7);
  EXPECT_EQ(Preferences::ReadIntegerValue(false, Service, u"HttpPort", u"other", 7), 7);
  EXPECT_FALSE(Preferences::WriteIntegerValue(false, Service, u"HttpPort", u"other", 1));
  // A value changes type when written again.
  ASSERT_TRUE(Preferences::WriteStringValue(false, Service, u"HttpPort", File, u"80"));
  EXPECT_EQ(Preferences::ReadIntegerValue(false, Service, u"HttpPort", File, 7), 7);

  ASSERT_TRUE(Preferences::WriteIntegerValue(true, Service, u"CurrentBasePort", File, 40123));
  EXPECT_EQ(Preferences::SoftwareService::GetUri(), StringBuffer(u"http://localhost:40123"));
}

TEST_F(SettingsTest, KeysAreListedExportedDeletedAndImportedWhole) {
  const SettingsStore store(SettingsStore::Hive::Machine);
  SettingsStore::Value dword;
  dword.type = SettingsStore::Type::Dword;
  dword.dword = 0xffffffffu;
  ASSERT_TRUE(store.Write("A\\B\\C", "n", dword));
  ASSERT_TRUE(store.Write(
      "a\\b", "Text", SettingsStore::Value{"", SettingsStore::Type::String, 0, "say \"hi\"\\\n"}));
  ASSERT_TRUE(store.Write("A\\BC", "n", dword));
  std::vector<std::string> names;
  ASSERT_TRUE(store.ListSubkeys("a", names));
  EXPECT_EQ(names, (std::vector<std::string>{"B", "BC"})) << "spelt as first written";
  ASSERT_TRUE(store.ListSubkeys("", names));
  EXPECT_EQ(names, (std::vector<std::string>{"A"}));

  std::vector<SettingsStore::Key> saved;
  ASSERT_TRUE(store.Export("A\\B", saved));
  ASSERT_EQ(saved.size(), 2u);
  EXPECT_EQ(saved[1].path, "A\\B\\C");
  EXPECT_EQ(saved[1].values[0].dword, 0xffffffffu);

  // Deleting A\B leaves its sibling A\BC, whose name begins the same.
  EXPECT_TRUE(store.DeleteKey("a\\B"));
  EXPECT_FALSE(store.HasKey("A\\B\\C"));
  EXPECT_TRUE(store.HasKey("A\\BC"));
  EXPECT_FALSE(store.DeleteKey("A\\B"));
  EXPECT_FALSE(store.DeleteKey(""));
  EXPECT_TRUE(store.DeleteValue("A\\BC", "N"));
  EXPECT_FALSE(store.DeleteValue("A\\BC", "N"));

  ASSERT_TRUE(store.Import(saved));
  SettingsStore::Value read;
  ASSERT_TRUE(store.Read("A\\B", "text", read));
  EXPECT_EQ(read.text, "say \"hi\"\\\n");

  // The tool's text form goes out and comes back unchanged; a bad line imports nothing.
  std::string exported;
  ASSERT_EQ(Tool("export A", &exported), 0) << exported;
  EXPECT_NE(exported.find("\"Text\"=\"say \\\"hi\\\"\\\\\\n\""), std::string::npos) << exported;
  EXPECT_NE(exported.find("\"n\"=dword:ffffffff"), std::string::npos) << exported;
  ASSERT_EQ(Tool("delete A"), 0);
  const std::string file = (folder_.Path() / "export.txt").string();
  std::ofstream(file) << exported;
  ASSERT_EQ(Tool("import " + file), 0);
  std::string again;
  ASSERT_EQ(Tool("export A", &again), 0);
  EXPECT_EQ(again, exported);
  std::ofstream(file) << "[Z]\n\"a\"=dword:1\n\"b\"=\"unterminated\n";
  std::string reason;
  EXPECT_EQ(Tool("import " + file, &reason), 1);
  EXPECT_NE(reason.find("line 3"), std::string::npos) << reason;
  EXPECT_FALSE(store.HasKey("Z"));

  std::string out;
  EXPECT_EQ(Tool("set Q N 4294967296 --dword", &out), 1) << out;
  EXPECT_EQ(Tool("--user set Q N 0x10 --dword"), 0);
  EXPECT_EQ(Tool("--user get q n", &out), 0);
  EXPECT_EQ(out, "16\n");
  EXPECT_EQ(Tool("get q n", &out), 1) << "the machine hive unless --user";
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << "one line: " << out;
}

// A database that is not one, truncated, emptied or held locked: reads give the default,
// writes false, and each kind of failure is logged once until the database works again.
TEST_F(SettingsTest, BadDatabasesGiveDefaultsAndOneLogLine) {
  ASSERT_TRUE(Preferences::WriteStringValue(false, Service, u"Uri", File, u"u"));
  for (int i = 0; i < 300; ++i)
    Preferences::WriteIntegerValue(false, Service, UTF8to16(std::to_string(i).c_str()).c_str(),
                                   File, i);
  // Everything into the database file itself, out of the write-ahead log.
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(Machine().c_str(), &raw), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(raw, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(raw);
  const std::string whole = Testing::ReadWholeFile(UTF8to16(Machine().c_str()));
  ASSERT_GT(whole.size(), 8192u);

  std::vector<std::string> lines;
  Logger::SetSink(
      [&](Logger::Severity::Enumeration, const char* message, int) { lines.push_back(message); });
  const std::vector<std::string> damaged{std::string(4096, 'x'), whole.substr(0, 4096),
                                         std::string()};
  for (std::size_t i = 0; i < damaged.size(); ++i) {
    const std::string path = (folder_.Path() / ("bad" + std::to_string(i) + ".db")).string();
    std::ofstream(path, std::ios::binary) << damaged[i];
    setenv("VESKAN_MACHINE_REGISTRY", path.c_str(), 1);
    lines.clear();
    EXPECT_EQ(Preferences::ReadStringValue(false, Service, u"Uri", File, u"d"), StringBuffer(u"d"));
    EXPECT_EQ(Preferences::ReadIntegerValue(false, Service, u"7", File, -1), -1);
    EXPECT_EQ(lines.size(), 1u) << "damage " << i;
    if (i == 2) continue;  // an empty file is an empty database: a write would fill it
    EXPECT_FALSE(Preferences::WriteIntegerValue(false, Service, u"x", File, 1));
    EXPECT_EQ(Testing::ReadWholeFile(UTF8to16(path.c_str())), damaged[i]) << "left as it was";
  }

  // A folder that cannot be made.
  setenv("VESKAN_MACHINE_REGISTRY", "/dev/null/registry.db", 1);
  EXPECT_FALSE(Preferences::WriteIntegerValue(false, Service, u"x", File, 1));

  // Another process holds the database locked past the time-out.
  setenv("VESKAN_MACHINE_REGISTRY", Machine().c_str(), 1);
  SettingsStore::SetBusyTimeoutMs(200);
  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open(Machine().c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  lines.clear();
  EXPECT_FALSE(Preferences::WriteIntegerValue(false, Service, u"x", File, 1));
  EXPECT_FALSE(Preferences::WriteIntegerValue(false, Service, u"x", File, 2));
  EXPECT_EQ(lines.size(), 1u);
  sqlite3_exec(holder, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(holder);
  EXPECT_TRUE(Preferences::WriteIntegerValue(false, Service, u"x", File, 3));
  EXPECT_EQ(Preferences::ReadIntegerValue(false, Service, u"x", File, 0), 3);
  Logger::SetSink(nullptr);
}

// The machine hive is written by an administrator and read by everyone else.
TEST_F(SettingsTest, AUserWhoMayNotWriteTheMachineHiveReadsItAndGetsFalseOnWrite) {
  ASSERT_EQ(Tool("set Software\\\\V Name shared"), 0);
  std::vector<std::string> asOther;
  if (geteuid() == 0) {
    // root may write anything: the tool runs as nobody instead.
    std::filesystem::permissions(folder_.Path(), std::filesystem::perms::others_exec,
                                 std::filesystem::perm_options::add);
    asOther = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  } else {
    std::filesystem::permissions(folder_.Path(), std::filesystem::perms::owner_write,
                                 std::filesystem::perm_options::remove);
    for (const char* suffix : {"", "-wal", "-shm"})
      std::filesystem::permissions(Machine() + suffix, std::filesystem::perms::owner_write,
                                   std::filesystem::perm_options::remove);
  }
  auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), VESKAN_SETTINGS_TOOL);
    arguments.insert(arguments.begin(), asOther.begin(), asOther.end());
    ChildProcess child(arguments, 1);
    const std::string line = child.LineWith("", 30);
    return std::make_pair(child.Wait(), line);
  };
  const auto read = run({"get", "software\\v", "name"});
  EXPECT_EQ(read.first, 0);
  EXPECT_EQ(read.second, "shared");
  EXPECT_EQ(run({"set", "software\\v", "name", "mine"}).first, 1);
  EXPECT_EQ(Preferences::ReadStringValue(false, u"Software\\V", u"Name", File, u""),
            StringBuffer(u"shared"));
  std::filesystem::permissions(folder_.Path(), std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add);
}

// Four processes write 1,000 values each into shared keys while reading one another's.
TEST_F(SettingsTest, FourProcessesWriteAtOnceAndNothingIsLostOrTorn) {
  constexpr int Count = 1000;
  std::vector<std::unique_ptr<ChildProcess>> workers;
  for (int id = 0; id < 4; ++id)
    workers.push_back(std::make_unique<ChildProcess>(
        std::vector<std::string>{VESKAN_SETTINGS_WORKER, std::to_string(id), std::to_string(Count)},
        2));
  for (auto& worker : workers)
    EXPECT_EQ(worker->Wait(), 0) << worker->LineWith("", 1);
  const SettingsStore store(SettingsStore::Hive::Machine);
  std::vector<SettingsStore::Key> keys;
  ASSERT_TRUE(store.Export("Shared", keys));
  std::size_t values = 0;
  for (const SettingsStore::Key& key : keys) {
    for (const SettingsStore::Value& value : key.values) {
      const std::string number = value.name.substr(value.name.find('-') + 1);
      EXPECT_EQ(value.text.substr(0, value.text.find(':', 2) + 1),
                value.name.substr(1, value.name.find('-') - 1) + ":" + number + ":");
      EXPECT_EQ(value.text.size(), 200u);
    }
    values += key.values.size();
  }
  EXPECT_EQ(values, 4u * Count);
}

TEST(PreferencesTest, RatingsLogPathsAndTheSignalStrengthReadOnce) {
  using Rating = Preferences::HardwareService::RfChEdRatings;
  EXPECT_EQ(Preferences::HardwareService::GetRfChEdRating(u"5", u"10 20"), Rating::Excellent);
  EXPECT_EQ(Preferences::HardwareService::GetRfChEdRating(u"15", u"10 20"), Rating::Good);
  EXPECT_EQ(Preferences::HardwareService::GetRfChEdRating(u"20", u"10 20"), Rating::Poor);
  EXPECT_EQ(Preferences::HardwareService::GetRfChEdRating(u"5", u"10"), Rating::Unknown);
  EXPECT_EQ(Preferences::HardwareService::GetRfChEdRating(u"5", u"10 20 30"), Rating::Unknown);
  EXPECT_EQ(Preferences::HardwareService::GetRfChEdRating(u"", u"10 20"), Rating::Unknown);

  const std::string fresh =
      Preferences::SoftwareService::GetNewLogFilePath(u"/var/log/a.b/Log.log").ToUTF8();
  EXPECT_EQ(fresh.rfind("/var/log/a.b/Log.", 0), 0u) << fresh;
  EXPECT_EQ(fresh.size(), std::string("/var/log/a.b/Log.2026-11-24T08-15-30.123456Z.log").size())
      << fresh;
  EXPECT_EQ(fresh.find(':'), std::string::npos) << fresh;

  TemporaryFolder folder;
  setenv("VESKAN_USER_REGISTRY", (folder.Path() / "u.db").c_str(), 1);
  setenv("VESKAN_MACHINE_REGISTRY", (folder.Path() / "m.db").c_str(), 1);
  setenv("VESKAN_LOG_DIR", "/srv/logs", 1);
  EXPECT_EQ(Preferences::SoftwareService::GetLogFilePath(),
            StringBuffer(u"/srv/logs/TallyoSoftwareServiceTransactions.log"));
  const StringBuffer settings = Preferences::ProductKey(Preferences::Settings::Key);
  ASSERT_TRUE(
      Preferences::WriteIntegerValue(true, settings.c_str(), u"PoorSignalStrength", File, 9));
  EXPECT_EQ(Preferences::Settings::GetPoorSignalStrength(), 9);
  ASSERT_TRUE(
      Preferences::WriteIntegerValue(true, settings.c_str(), u"PoorSignalStrength", File, 3));
  EXPECT_EQ(Preferences::Settings::GetPoorSignalStrength(), 9) << "read once per process";
}

}  // namespace
}  // namespace Veskan

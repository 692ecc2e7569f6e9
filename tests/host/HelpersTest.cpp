// The desktop helpers against real programs: stand-ins for xdg-open, systemctl and zenity put
// first in PATH, a mail relay on a port of the test's choosing, real gzip files.
#include <veskan/ByteBuffer.h>
#include <veskan/Helpers.h>
#include <veskan/IPC.h>
#include <veskan/Logger.h>
#include <veskan/Preferences.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace Veskan {
namespace {

using Testing::TemporaryFolder;

std::string Read(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Stand-in programs in a folder put first in PATH; each writes its arguments, one per line, to
// "<name>.args" beside it.
class HelpersTest : public ::testing::Test {
 protected:
  HelpersTest() : path_(std::getenv("PATH") ? std::getenv("PATH") : "") {
    setenv("PATH", (folder_.Path().string() + ":" + path_).c_str(), 1);
  }
  ~HelpersTest() override {
    setenv("PATH", path_.c_str(), 1);
    Helpers::SetAlertHandler(nullptr);
  }

  void StandIn(const std::string& name, const std::string& script = "") {
    const auto program = folder_.Path() / name;
    std::ofstream(program) << "#!/bin/sh\nfor a in \"$@\"; do echo \"$a\"; done > '"
                           << (folder_.Path() / (name + ".args")).string() << "'\n"
                           << script << "\n";
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  }
  // The arguments a stand-in was given, waiting up to 10 s for it to have run.
  std::string ArgumentsOf(const std::string& name) {
    const auto file = folder_.Path() / (name + ".args");
    for (int i = 0; i < 1000 && !std::filesystem::exists(file); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return Read(file);
  }

  TemporaryFolder folder_;
  std::string path_;
};

TEST_F(HelpersTest, HelpOpensTheProductsHelpAddressWithTheDesktopsHandler) {
  EXPECT_EQ(Helpers::HelpUrl(u"fr"),
            StringBuffer(u"https://help.calvortechnologies.com/redirect/?lang=fr&project=folivo"
                         u"&version=14_1_0&system=windows&context="));
  StandIn("xdg-open");
  ASSERT_TRUE(Helpers::Help(u"help://Tallyo"));
  EXPECT_EQ(ArgumentsOf("xdg-open"),
            Helpers::HelpUrl(u"en").ToUTF8() + "Tallyo\n");  // no language set: English
  std::filesystem::remove(folder_.Path() / "xdg-open.args");
  ASSERT_TRUE(Helpers::Help(u"https://example.org/a b"));
  EXPECT_EQ(ArgumentsOf("xdg-open"), "https://example.org/a b\n");
}

TEST_F(HelpersTest, AlertsChooseButtonsAndIconsAndAnswerZeroToGoAhead) {
  Helpers::AlertButtons shown = Helpers::Ok;
  Helpers::AlertIcon icon = Helpers::NoIcon;
  Helpers::AlertAnswer answer = Helpers::AnsweredOk;
  StringBuffer title;
  Helpers::SetAlertHandler([&](const StringBuffer& t, const StringBuffer&,
                               Helpers::AlertButtons buttons, Helpers::AlertIcon i) {
    title = t;
    shown = buttons;
    icon = i;
    return answer;
  });
  const struct {
    int styles;
    Helpers::AlertButtons buttons;
    Helpers::AlertIcon icon;
  } cases[] = {{0, Helpers::Ok, Helpers::NoIcon},
               {4, Helpers::Ok, Helpers::ErrorIcon},
               {5, Helpers::OkCancel, Helpers::ErrorIcon},
               {6, Helpers::YesNo, Helpers::QuestionIcon},  // bit 4 set: no error icon
               {3, Helpers::YesNoCancel, Helpers::QuestionIcon}};
  for (const auto& expected : cases) {
    EXPECT_EQ(Helpers::AlertUser(nullptr, u"m", expected.styles), 0);
    EXPECT_EQ(shown, expected.buttons) << expected.styles;
    EXPECT_EQ(icon, expected.icon) << expected.styles;
  }
  EXPECT_EQ(title, StringBuffer(u""));
  answer = Helpers::AnsweredCancel;
  EXPECT_EQ(Helpers::AlertUser(u"t", u"m", 3), -1);
  answer = Helpers::AnsweredNo;
  EXPECT_EQ(Helpers::AlertUser(u"t", u"m", 3), 1);
  answer = Helpers::AnsweredYes;
  EXPECT_EQ(Helpers::AlertUser(u"t", u"m", 2), 0);
}

TEST_F(HelpersTest, FoldersComeFromTheXdgSettingsAndTheEnvironment) {
  setenv("XDG_CONFIG_HOME", folder_.Path().c_str(), 1);
  std::ofstream(folder_.Path() / "user-dirs.dirs")
      << "# written by xdg-user-dirs-update\nXDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n";
  const std::string home = std::getenv("HOME") ? std::getenv("HOME") : "";
  EXPECT_EQ(Helpers::GetUserDirectory(u"#desktop").ToUTF8(), home + "/Schreibtisch");
  EXPECT_EQ(Helpers::GetUserDirectory(u"#DESKTOP"), Helpers::GetUserDirectory(u"#desktop"));
  EXPECT_EQ(Helpers::GetUserDirectory(u"#documents").ToUTF8(), home + "/Documents");
  EXPECT_EQ(Helpers::GetUserDirectory(u"#support").ToUTF8(), folder_.Path().string());
  EXPECT_TRUE(Helpers::GetUserDirectory(u"#music").isEmpty());
  setenv("HOMEDRIVE", "C:", 1);
  setenv("HOMEPATH", "\\Users\\ana", 1);
  EXPECT_EQ(Helpers::GetUserDirectory(u"#home"), StringBuffer(u"C:\\Users\\ana"));
  unsetenv("HOMEDRIVE");
  EXPECT_EQ(Helpers::GetUserDirectory(u"#home").ToUTF8(), home);
  unsetenv("HOMEPATH");
  unsetenv("XDG_CONFIG_HOME");
  EXPECT_TRUE(Helpers::FileExists(StringBuffer((folder_.Path() / "user-dirs.dirs").c_str())));
  EXPECT_FALSE(Helpers::FileExists(StringBuffer(folder_.Path().c_str())));  // a folder
  EXPECT_TRUE(Helpers::FileExists(Helpers::GetApplicationDirectory() + u"/veskan_host_tests"));
}

TEST_F(HelpersTest, CommandLinesSplitOnQuotesAndProgramsStartWithoutAShell) {
  StringList args;
  Helpers::CommandLineToArgv(u"  'a b'\tc \"d 'e\" f\"g \"h", args);
  ASSERT_EQ(args.Count(), 5);
  EXPECT_EQ(args[0], StringBuffer(u"a b"));
  EXPECT_EQ(args[1], StringBuffer(u"c"));
  EXPECT_EQ(args[2], StringBuffer(u"d 'e"));
  EXPECT_EQ(args[3], StringBuffer(u"f\"g"));
  EXPECT_EQ(args[4], StringBuffer(u"h"));  // an unclosed quote runs to the end
  // What SingleInstanceCLI joins, CommandLineToArgv splits back into the same arguments.
  const std::vector<std::vector<const char16_t*>> vectors = {
      {u"quiz", u"my quiz.rdf", u"\t tab", u"say \"hi\"", u"it's", u"'lead", u"\"lead"},
      {u"a", u"b\tc", u"d  e", u"\u00E9t\u00E9 \U0001F600"}};
  for (const auto& arguments : vectors) {
    StringList split;
    Helpers::CommandLineToArgv(
        SingleInstanceCLI::JoinArguments(static_cast<int>(arguments.size()), arguments.data()),
        split);
    ASSERT_EQ(split.Count(), static_cast<int>(arguments.size()));
    for (int i = 0; i < split.Count(); ++i)
      EXPECT_EQ(split[i], StringBuffer(arguments[static_cast<std::size_t>(i)]));
  }
  const StringBuffer same(u"A");
  EXPECT_TRUE(Helpers::IsEqualAnswer(same.c_str(), same.c_str()));
  EXPECT_FALSE(Helpers::IsEqualAnswer(same.c_str(), StringBuffer(u"A").c_str()));

  StandIn("my program", "exit 7");
  const std::string program = (folder_.Path() / "my program").string();
  const StringBuffer line((" \"" + program + "\" 'two words' $(touch pwned) ;").c_str());
  EXPECT_EQ(Helpers::Launch(line, Helpers::LaunchWait | Helpers::LaunchReturnProcess), 7);
  EXPECT_EQ(ArgumentsOf("my program"), "two words\n$(touch\npwned)\n;\n");
  EXPECT_FALSE(std::filesystem::exists("pwned"));
  EXPECT_GT(Helpers::Launch(line, Helpers::LaunchReturnProcess), 0);  // a process id
  // A document is opened by the desktop's handler.
  StandIn("xdg-open");
  EXPECT_EQ(Helpers::Launch(u"notes.pdf", Helpers::LaunchWait), 0);
  EXPECT_EQ(ArgumentsOf("xdg-open"), "notes.pdf\n");
  setenv("PATH", folder_.Path().c_str(), 1);
  std::filesystem::remove(folder_.Path() / "xdg-open");
  EXPECT_EQ(Helpers::Launch(u"notes.pdf"), -1);
}

TEST_F(HelpersTest, ServicesAreAskedForAndStarted) {
  StandIn("systemctl", "[ \"$1\" = is-active ] && exit 3; exit 0");
  EXPECT_TRUE(Helpers::EnsureHardwareServiceIsRunning());
  EXPECT_EQ(ArgumentsOf("systemctl"), "start\ntallyo-hardware.service\n");
  StandIn("systemctl", "exit 1");
  EXPECT_FALSE(Helpers::EnsureHardwareServiceIsRunning());

  // The software service answers on the port recorded in the user's settings.
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  const int port = ntohs(address.sin_port);
  ASSERT_TRUE(Preferences::WriteIntegerValue(true, Preferences::SoftwareServicePath,
                                             Preferences::SoftwareService::CurrentBasePort,
                                             Preferences::File, port));
  EXPECT_TRUE(Helpers::IsSoftwareServiceRunningLocally());
  EXPECT_TRUE(Helpers::EnsureSoftwareServiceIsRunning());
  close(listener);
  EXPECT_FALSE(Helpers::IsSoftwareServiceRunningLocally());
  std::vector<std::string> lines;
  Logger::SetSink([&lines](Logger::Severity::Enumeration, const char* message, int) {
    lines.push_back(message);
  });
  EXPECT_FALSE(Helpers::EnsureSoftwareServiceIsRunning());  // no such program beside the tests
  Logger::SetSink(nullptr);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(" TallyoSoftwareService launch failed from " +
                          Helpers::GetApplicationDirectory().ToUTF8() + "."),
            std::string::npos);
}

TEST_F(HelpersTest, DialogsAnswerThroughZenityOrNotAtAll) {
  StandIn("zenity", "echo /home/ana/quiz one.rdf; echo /home/ana/two.rdf");
  const StringList chosen = Helpers::BrowseToOpenFiles(u"Open", u"Quizzes | *.rdf", true);
  ASSERT_EQ(chosen.Count(), 2);
  EXPECT_EQ(chosen[0], StringBuffer(u"/home/ana/quiz one.rdf"));
  EXPECT_NE(ArgumentsOf("zenity").find("--multiple\n"), std::string::npos);
  StandIn("zenity", "exit 1");  // cancelled
  EXPECT_EQ(Helpers::BrowseToSaveFile(u"Save", u"results.csv").Count(), 0);
  setenv("PATH", "/nonexistent", 1);
  EXPECT_EQ(Helpers::BrowseToOpenFolder(u"Folder").Count(), 0);
}

TEST_F(HelpersTest, GzipFilesRoundTripAndBadOnesLeaveNoTarget) {
  const auto file = [this](const char* name) {
    return StringBuffer((folder_.Path() / name).c_str());
  };
  std::string original;
  for (int i = 0; i < 300000; ++i)
    original += std::to_string(i * 7919L % 100003) + (i % 13 ? " " : "\n");
  std::ofstream(folder_.Path() / "plain") << original;
  ASSERT_TRUE(Helpers::GzipFile(file("plain"), file("plain.gz")));
  const std::string packed = Read(folder_.Path() / "plain.gz");
  EXPECT_LT(packed.size(), original.size() / 2);
  EXPECT_EQ(packed.substr(0, 2), "\x1f\x8b");
  ASSERT_TRUE(Helpers::GunzipFile(file("plain.gz"), file("back")));
  EXPECT_EQ(Read(folder_.Path() / "back"), original);

  // Cut short, damaged, not gzip at all, or past the limit: false, and no target.
  std::ofstream(folder_.Path() / "cut.gz") << packed.substr(0, packed.size() / 2);
  std::string damaged = packed;
  damaged[damaged.size() / 2] ^= 0x55;
  std::ofstream(folder_.Path() / "damaged.gz") << damaged;
  std::ofstream(folder_.Path() / "text.gz") << "not gzip";
  for (const char* bad : {"cut.gz", "damaged.gz", "text.gz", "missing.gz"})
    EXPECT_FALSE(Helpers::GunzipFile(file(bad), file("out"))) << bad;
  Helpers::SetGunzipLimit(original.size() - 1);
  EXPECT_FALSE(Helpers::GunzipFile(file("plain.gz"), file("out")));
  Helpers::SetGunzipLimit(std::uint64_t{4} << 30);
  EXPECT_FALSE(std::filesystem::exists(folder_.Path() / "out"));
  // Nothing of the attempts is left beside the target.
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.Path()))
    files += entry.path().filename().string().find(".partial-") == std::string::npos;
  EXPECT_EQ(files, std::distance(std::filesystem::directory_iterator(folder_.Path()),
                                 std::filesystem::directory_iterator()));
}

TEST_F(HelpersTest, AGigabyteGoesThroughInBoundedMemory) {
  {
    std::ofstream zeros(folder_.Path() / "big", std::ios::binary);
    zeros.seekp((std::int64_t{1} << 30) - 1);
    zeros.put('\0');
  }
  const auto file = [this](const char* name) {
    return StringBuffer((folder_.Path() / name).c_str());
  };
  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  ASSERT_TRUE(Helpers::GzipFile(file("big"), file("big.gz")));
  std::filesystem::remove(folder_.Path() / "big");
  // A gigabyte of zeros packs a thousand to one: as a bomb would, with a lower limit.
  Helpers::SetGunzipLimit(std::uint64_t{64} << 20);
  EXPECT_FALSE(Helpers::GunzipFile(file("big.gz"), file("big")));
  Helpers::SetGunzipLimit(std::uint64_t{4} << 30);
  ASSERT_TRUE(Helpers::GunzipFile(file("big.gz"), file("big")));
  EXPECT_EQ(std::filesystem::file_size(folder_.Path() / "big"), std::uint64_t{1} << 30);
  rusage after{};
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 * 1024);  // kilobytes
}

// A mail relay on a port of its own: greets, reads the conversation to its end (or closes after
// `closeAfter` bytes) and answers each command.
class Relay {
 public:
  explicit Relay(std::size_t closeAfter = 0) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener_, 1);
    socklen_t length = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, closeAfter] {
      const int peer = accept(listener_, nullptr, nullptr);
      if (peer < 0) return;
      const std::string greeting = "220 relay ready\r\n";
      send(peer, greeting.data(), greeting.size(), MSG_NOSIGNAL);
      char chunk[4096];
      while (received_.size() < 5 || received_.compare(received_.size() - 5, 5, "\r\n.\r\n") != 0) {
        if (closeAfter && received_.size() >= closeAfter) break;
        const ssize_t got = recv(peer, chunk, closeAfter ? 1 : sizeof chunk, 0);
        if (got <= 0) break;
        received_.append(chunk, static_cast<std::size_t>(got));
      }
      if (!closeAfter) {
        const std::string replies =
            "250 hello\r\n250-ok\r\n250 ok\r\n250 ok\r\n354 go on\r\n250 queued\r\n";
        send(peer, replies.data(), replies.size(), MSG_NOSIGNAL);
      }
      close(peer);
    });
  }
  ~Relay() {
    shutdown(listener_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    close(listener_);
  }
  int Port() const { return port_; }
  std::string Received() {
    shutdown(listener_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    return received_;
  }

 private:
  int listener_;
  int port_ = 0;
  std::string received_;
  std::thread thread_;
};

TEST_F(HelpersTest, MailGoesToTheRelayAsOneConversation) {
  std::ofstream(folder_.Path() / "results.csv", std::ios::binary) << "name,score\nana,3\n";
  const std::string path = (folder_.Path() / "results.csv").string();
  Relay relay;
  Helpers::SetMailRelay("127.0.0.1", relay.Port());
  ASSERT_TRUE(Helpers::EmailFileAsAttachment(
      u"Ana Lopes", u"ana@school.example", u"Ben", u"ben@school.example", u"Results",
      u"See\n.hidden", StringBuffer(path.c_str()).c_str(), u"results.csv", u"text/csv"));
  const std::string mail = relay.Received();
  std::smatch found;
  ASSERT_TRUE(std::regex_search(mail, found, std::regex("boundary=([0-9A-V]+)\r\n")));
  const std::string boundary = found[1];
  ASSERT_TRUE(std::regex_search(mail, found,
                                std::regex("\r\nDate: ((Mon|Tue|Wed|Thu|Fri|Sat|Sun), \\d{1,2} "
                                           "\\w{3} \\d{4} \\d\\d:\\d\\d:\\d\\d GMT)\r\n")));
  const std::string date = found[1];
  const std::string helo = mail.substr(0, mail.find("\r\n"));
  EXPECT_EQ(helo.substr(0, 5), "HELO ");
  EXPECT_EQ(mail, helo +
                      "\r\nMAIL FROM:<ana@school.example>\r\nRCPT TO:<ben@school.example>\r\n"
                      "DATA\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=" +
                      boundary +
                      "\r\nSubject: Results\r\nFrom: Ana Lopes <ana@school.example>\r\n"
                      "To: Ben <ben@school.example>\r\nDate: " +
                      date + "\r\n\r\n\r\n\r\n--" + boundary +
                      "\r\nContent-Type: text/plain\r\n\r\nSee\n..hidden\r\n\r\n--" + boundary +
                      "\r\nContent-Type: text/csv\r\nContent-Transfer-Encoding: base64\r\n"
                      "Content-Disposition: attachment; filename=\"results.csv\"\r\n\r\n"
                      "bmFtZSxzY29yZQphbmEsMwo=\r\n--" +
                      boundary + "--\r\n.\r\n");

  Relay early(40);
  Helpers::SetMailRelay("127.0.0.1", early.Port());
  EXPECT_FALSE(Helpers::EmailFileAsAttachment(u"A", u"a@x", u"B", u"b@x", u"S", u"body", nullptr,
                                              nullptr, nullptr));
  Helpers::SetMailRelay("localhost", 25);
}

}  // namespace
}  // namespace Veskan

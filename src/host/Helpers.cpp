// Helpers: help, message boxes, folders, command lines, programs and services.
#include <veskan/Helpers.h>

#include <veskan/Logger.h>
#include <veskan/Preferences.h>
#include <veskan/Version.h>

#include "sys/Path.h"
#include "sys/Process.h"
#include "sys/Socket.h"

#include <unicode/uloc.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <thread>

namespace Veskan {

namespace {

constexpr int MaxUserDirectory = 3199;  // the characters a 3200-character buffer holds
constexpr const char* HardwareServiceUnit = "tallyo-hardware.service";
constexpr const char* SoftwareServiceProgram = "TallyoSoftwareService";
constexpr int SoftwareServiceStartSeconds = 10;

std::mutex alertMutex;
Helpers::AlertHandler alertHandler;

std::string Utf8(const StringBuffer& text) {
  return text.ToUTF8();
}

// Replaces every `from` in `text` by `to`.
void ReplaceAll(StringBuffer& text, const char16_t* from, const StringBuffer& to) {
  text.findAndReplace(StringBuffer(from), to);
}

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

// A folder of ~/.config/user-dirs.dirs ("XDG_DESKTOP_DIR="$HOME/Desktop""), else $HOME/fallback.
std::string XdgUserFolder(const char* key, const char* fallback) {
  const std::string home = Sys::HomeFolder();
  const std::string config =
      Environment("XDG_CONFIG_HOME").empty() ? home + "/.config" : Environment("XDG_CONFIG_HOME");
  std::ifstream dirs(config + "/user-dirs.dirs");
  for (std::string line; std::getline(dirs, line);) {
    if (line.compare(0, std::char_traits<char>::length(key), key) != 0) continue;
    const std::size_t open = line.find('"');
    const std::size_t close = line.rfind('"');
    if (open == std::string::npos || close <= open) continue;
    std::string folder = line.substr(open + 1, close - open - 1);
    if (folder.compare(0, 5, "$HOME") == 0) folder = home + folder.substr(5);
    if (!folder.empty() && folder[0] == '/') return folder;
  }
  return home + "/" + fallback;
}

// The language part of a Windows language identifier ("fr" for 1036); "en" when unknown.
std::string LanguageCode(int languageId) {
  char locale[64] = {};
  UErrorCode status = U_ZERO_ERROR;
  uloc_getLocaleForLCID(static_cast<std::uint32_t>(languageId), locale, sizeof locale, &status);
  if (U_FAILURE(status) || !*locale) return "en";
  char language[16] = {};
  uloc_getLanguage(locale, language, sizeof language, &status);
  return U_SUCCESS(status) && *language ? language : "en";
}

// Opens a document or an address with the desktop's handler.
bool OpenWithDesktop(const std::string& what) {
  int error = 0;
  const int pid = Sys::StartProcess({"xdg-open", what}, error);
  if (pid < 0) return false;
  std::thread([pid] { Sys::WaitForProcess(pid); }).detach();  // reaped when it ends
  return true;
}

bool Answers(int port) {
  int error = 0;
  Sys::Socket socket = Sys::Socket::OpenTcp(error);
  if (!socket.IsOpen()) return false;
  Sys::SocketAddress address;
  Sys::SocketAddress::FromDotted("127.0.0.1", address.address);
  address.port = port;
  if (!Sys::SocketCalls::Connect(socket.Get(), address, error)) return false;
  Sys::Poller poller;
  poller.Add(socket.Get(), false, true);
  return poller.Wait(1000) > 0 && Sys::SocketCalls::PendingError(socket.Get()) == 0;
}

int SoftwareServicePort() {
  return Preferences::ReadIntegerValue(
      true, Preferences::SoftwareServicePath, Preferences::SoftwareService::CurrentBasePort,
      Preferences::File, Preferences::SoftwareService::DefaultHttpPort);
}

StringList Paths(const std::vector<std::string>& arguments) {
  StringList chosen;
  std::string output;
  if (!Sys::ProgramExists(arguments[0]) || Sys::RunCapturingOutput(arguments, output, 1 << 20) != 0)
    return chosen;
  if (!output.empty() && output.back() == '\n') output.pop_back();
  std::size_t start = 0;
  while (start < output.size()) {
    std::size_t end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    if (end > start) chosen.Add(StringBuffer(output.substr(start, end - start).c_str()));
    start = end + 1;
  }
  return chosen;
}

}  // namespace

StringBuffer Helpers::HelpUrl(const StringBuffer& language) {
  StringBuffer url(
      u"%HELP_SERVER%/?lang=%HELP_LANGUAGE%&project=%HELP_PRODUCT%&version=%HELP_PRODUCT_VERSION%"
      u"&system=%HELP_OS_PLATFORM%&context=");
  ReplaceAll(url, u"%HELP_SERVER%", StringBuffer(HelpServer));
  ReplaceAll(url, u"%HELP_LANGUAGE%", language);
  ReplaceAll(url, u"%HELP_PRODUCT%", StringBuffer(u"folivo"));
  ReplaceAll(url, u"%HELP_PRODUCT_VERSION%", StringBuffer(u"14_1_0"));
  ReplaceAll(url, u"%HELP_OS_PLATFORM%", StringBuffer(u"windows"));
  return url;
}

bool Helpers::Help(const StringBuffer& context) {
  static const StringBuffer scheme(u"help://");
  StringBuffer address = context;
  if (context.startsWith(scheme))
    address = HelpUrl(StringBuffer(LanguageCode(GetCurrentLanguageId()).c_str())) +
              StringBuffer(context.tempSubString(scheme.length()));
  return !address.isEmpty() && OpenWithDesktop(Utf8(address));
}

void Helpers::SetAlertHandler(AlertHandler handler) {
  std::lock_guard<std::mutex> lock(alertMutex);
  alertHandler = std::move(handler);
}

int Helpers::AlertUser(const char16_t* title, const char16_t* message, int styles) {
  const auto buttons = static_cast<AlertButtons>(styles & 3);
  AlertIcon icon = NoIcon;
  if (buttons == YesNo || buttons == YesNoCancel)
    icon = QuestionIcon;
  else if (styles & 4)
    icon = ErrorIcon;
  const StringBuffer shownTitle(title ? title : u"");
  const StringBuffer shownMessage(message ? message : u"");
  AlertHandler handler;
  {
    std::lock_guard<std::mutex> lock(alertMutex);
    handler = alertHandler;
  }
  AlertAnswer answer;
  if (handler) {
    answer = handler(shownTitle, shownMessage, buttons, icon);
  } else {
    std::fprintf(stderr, "%s: %s\n", Utf8(shownTitle).c_str(), Utf8(shownMessage).c_str());
    answer = buttons == Ok || buttons == OkCancel ? AnsweredOk : AnsweredYes;
  }
  switch (answer) {
    case AnsweredCancel:
      return -1;
    case AnsweredNo:
      return 1;
    default:
      return 0;
  }
}

StringBuffer Helpers::GetUserDirectory(const StringBuffer& name) {
  StringBuffer folded(name);
  folded.foldCase();
  std::string folder;
  if (folded == StringBuffer(u"#documents")) {
    folder = XdgUserFolder("XDG_DOCUMENTS_DIR", "Documents");
  } else if (folded == StringBuffer(u"#desktop")) {
    folder = XdgUserFolder("XDG_DESKTOP_DIR", "Desktop");
  } else if (folded == StringBuffer(u"#temp")) {
    folder = Environment("TMPDIR").empty() ? "/tmp" : Environment("TMPDIR");
  } else if (folded == StringBuffer(u"#home")) {
    const std::string drive = Environment("HOMEDRIVE");
    const std::string path = Environment("HOMEPATH");
    folder = std::getenv("HOMEDRIVE") && std::getenv("HOMEPATH") ? drive + path : Sys::HomeFolder();
  } else if (folded == StringBuffer(u"#support")) {
    folder = Environment("XDG_CONFIG_HOME").empty() ? Sys::HomeFolder() + "/.config"
                                                    : Environment("XDG_CONFIG_HOME");
  }
  const StringBuffer result(folder.c_str());
  return result.length() > MaxUserDirectory ? StringBuffer() : result;
}

StringBuffer Helpers::GetApplicationDirectory() {
  const std::string executable = Sys::ExecutablePath();
  const std::size_t slash = executable.rfind('/');
  return slash == std::string::npos ? StringBuffer()
                                    : StringBuffer(executable.substr(0, slash).c_str());
}

StringBuffer Helpers::GetProductName() {
  return StringBuffer(ProductName());
}

int Helpers::GetCurrentLanguageId() {
  return Preferences::ReadIntegerValue(false, Preferences::Languages::FolivoLanguageKey,
                                       Preferences::Languages::LanguageId, Preferences::File,
                                       1033) &
         0xFFFF;
}

void Helpers::CommandLineToArgv(const StringBuffer& commandLine, StringList& args) {
  Logger::Line(Logger::Severity::Debug, "Veskan::Helpers::CommandLineToArgv")
      << " " << Utf8(commandLine);
  const int length = commandLine.length();
  int at = 0;
  for (;;) {
    while (at < length && (commandLine.charAt(at) == u' ' || commandLine.charAt(at) == u'\t'))
      ++at;
    if (at >= length) return;
    const char16_t first = commandLine.charAt(at);
    if (first == u'"' || first == u'\'') {
      const int close = commandLine.indexOf(first, at + 1);
      const int end = close < 0 ? length : close;
      args.Add(StringBuffer(commandLine.tempSubString(at + 1, end - at - 1)));
      at = end + 1;
    } else {
      int end = at;
      while (end < length && commandLine.charAt(end) != u' ' && commandLine.charAt(end) != u'\t')
        ++end;
      args.Add(StringBuffer(commandLine.tempSubString(at, end - at)));
      at = end;
    }
  }
}

bool Helpers::FileExists(const StringBuffer& path) {
  return !path.isEmpty() && Sys::IsRegularFile(Utf8(path));
}

int Helpers::Launch(const StringBuffer& commandLine, int flags) {
  // The program: up to the closing quote when quoted, else to the first space.
  StringBuffer line(commandLine);
  line.trim();
  if (line.isEmpty()) return -1;
  int end;
  StringBuffer program;
  if (line.charAt(0) == u'"') {
    end = line.indexOf(u'"', 1);
    if (end < 0) end = line.length();
    program = StringBuffer(line.tempSubString(1, end - 1));
    ++end;
  } else {
    end = line.indexOf(u' ');
    if (end < 0) end = line.length();
    program = StringBuffer(line.tempSubString(0, end));
  }
  std::vector<std::string> arguments{Utf8(program)};
  StringList parameters;
  if (end < line.length()) CommandLineToArgv(StringBuffer(line.tempSubString(end)), parameters);
  for (int i = 0; i < parameters.Count(); ++i)
    arguments.push_back(Utf8(parameters[i]));
  // What is not a program is opened as a document is.
  if (!Sys::ProgramExists(arguments[0])) arguments.insert(arguments.begin(), "xdg-open");
  int error = 0;
  const int pid = Sys::StartProcess(arguments, error);
  if (pid < 0) return -1;
  if (flags & LaunchWait) {
    const int status = Sys::WaitForProcess(pid);
    return flags & LaunchReturnProcess ? status : 0;
  }
  std::thread([pid] { Sys::WaitForProcess(pid); }).detach();
  return flags & LaunchReturnProcess ? pid : 0;
}

bool Helpers::EnsureHardwareServiceIsRunning() {
  std::string ignored;
  if (!Sys::ProgramExists("systemctl")) return false;
  if (Sys::RunCapturingOutput({"systemctl", "is-active", "--quiet", HardwareServiceUnit}, ignored,
                              0) == 0)
    return true;
  return Sys::RunCapturingOutput({"systemctl", "start", HardwareServiceUnit}, ignored, 0) == 0;
}

bool Helpers::IsSoftwareServiceRunningLocally() {
  return Answers(SoftwareServicePort());
}

bool Helpers::EnsureSoftwareServiceIsRunning() {
  if (IsSoftwareServiceRunningLocally()) return true;
  const StringBuffer folder = GetApplicationDirectory();
  const std::string program = Utf8(folder) + "/" + SoftwareServiceProgram;
  int error = 0;
  const int pid = Sys::IsExecutableFile(program) ? Sys::StartProcess({program}, error) : -1;
  if (pid < 0) {
    Logger::Line(Logger::Severity::Error, "Veskan::Helpers::EnsureSoftwareServiceIsRunning")
        << " TallyoSoftwareService launch failed from " << Utf8(folder) << ".";
    return false;
  }
  std::thread([pid] { Sys::WaitForProcess(pid); }).detach();
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(SoftwareServiceStartSeconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (IsSoftwareServiceRunningLocally()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

StringList Helpers::BrowseToOpenFiles(const StringBuffer& title, const StringBuffer& filter,
                                      bool multiple) {
  std::vector<std::string> arguments{"zenity", "--file-selection", "--title=" + Utf8(title)};
  if (!filter.isEmpty()) arguments.push_back("--file-filter=" + Utf8(filter));
  if (multiple) arguments.insert(arguments.end(), {"--multiple", "--separator=\n"});
  return Paths(arguments);
}

StringList Helpers::BrowseToOpenFolder(const StringBuffer& title) {
  return Paths({"zenity", "--file-selection", "--directory", "--title=" + Utf8(title)});
}

StringList Helpers::BrowseToSaveFile(const StringBuffer& title, const StringBuffer& fileName) {
  return Paths({"zenity", "--file-selection", "--save", "--confirm-overwrite",
                "--title=" + Utf8(title), "--filename=" + Utf8(fileName)});
}

void* Helpers::PlatformSpecificStartup() {
  std::signal(SIGPIPE, SIG_IGN);
  static int token = 0;
  return &token;
}

}  // namespace Veskan

// veskan-settings: reads and writes the shared settings from the command line, for
// administrators and setup scripts. The machine hive unless --user is given.
//
//   veskan-settings [--user] get KEY NAME             prints the value (a DWORD in decimal)
//   veskan-settings [--user] set KEY NAME VALUE [--dword]   a string unless --dword
//   veskan-settings [--user] delete KEY [NAME]        the value, or the key and all under it
//   veskan-settings [--user] list KEY                 subkeys ("Name\") and values
//   veskan-settings [--user] export [KEY]             the key and all under it, as text
//   veskan-settings [--user] import FILE              such a text ("-": standard input)
//
// The text form is the one of registry files:
//   [Software\Calvor Technologies\Tallyo\SoftwareService]
//   "HttpPort"=dword:00005ba0
//   "Uri"="http://localhost:23456"
// with \\, \", \n and \r escaped in strings, and lines starting with ';' or '#' ignored. An
// import is all or nothing.
//
// Exit status 0 on success; 1 with a one-line reason on standard error otherwise.
#include <veskan/Logger.h>
#include <veskan/SettingsStore.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

using Veskan::SettingsStore;

namespace {

int Fail(const std::string& reason) {
  std::cerr << "veskan-settings: " << reason << "\n";
  return 1;
}

// The store's reason when the last operation failed, else `missing`.
int FailFinding(const std::string& missing) {
  const std::string error = SettingsStore::LastError();
  return Fail(error.empty() ? missing : error);
}

int Usage() {
  return Fail(
      "usage: veskan-settings [--user] get KEY NAME | set KEY NAME VALUE [--dword] | "
      "delete KEY [NAME] | list KEY | export [KEY] | import FILE");
}

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (char c : text) {
    switch (c) {
      case '\\':
        quoted += "\\\\";
        break;
      case '"':
        quoted += "\\\"";
        break;
      case '\n':
        quoted += "\\n";
        break;
      case '\r':
        quoted += "\\r";
        break;
      default:
        quoted += c;
    }
  }
  return quoted + "\"";
}

std::string ValueLine(const SettingsStore::Value& value) {
  std::ostringstream line;
  line << Quoted(value.name) << "=";
  if (value.type == SettingsStore::Type::Dword) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "%08x", value.dword);
    line << "dword:" << hex;
  } else {
    line << Quoted(value.text);
  }
  return line.str();
}

// Reads a quoted text starting at `at`; moves `at` past it. False when it is not one.
bool Unquote(const std::string& line, std::size_t& at, std::string& text) {
  if (at >= line.size() || line[at] != '"') return false;
  text.clear();
  for (++at; at < line.size(); ++at) {
    char c = line[at];
    if (c == '"') {
      ++at;
      return true;
    }
    if (c == '\\') {
      if (++at >= line.size()) return false;
      c = line[at];
      if (c == 'n')
        c = '\n';
      else if (c == 'r')
        c = '\r';
      else if (c != '\\' && c != '"')
        return false;
    }
    text += c;
  }
  return false;
}

// A DWORD written in decimal, or in hexadecimal after "0x"; false when it is not one.
bool ParseDword(const std::string& text, std::uint32_t& dword, int base = 0) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long parsed = std::strtoull(text.c_str(), &end, base);
  if (errno != 0 || *end != '\0' || parsed > 0xffffffffULL) return false;
  dword = static_cast<std::uint32_t>(parsed);
  return true;
}

// Parses the text form; on failure `error` says which line and why.
bool ParseExport(std::istream& in, std::vector<SettingsStore::Key>& keys, std::string& error) {
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == ';' || line[start] == '#') continue;
    const std::string where = "line " + std::to_string(number) + ": ";
    if (line[start] == '[') {
      const std::size_t end = line.find_last_not_of(" \t");
      if (line[end] != ']') return error = where + "a key must end in ']'", false;
      keys.push_back({line.substr(start + 1, end - start - 1), {}});
      continue;
    }
    if (keys.empty()) return error = where + "a value before the first [key]", false;
    SettingsStore::Value value;
    std::size_t at = start;
    if (!Unquote(line, at, value.name) || at >= line.size() || line[at] != '=')
      return error = where + "expected \"name\"=value", false;
    ++at;
    if (line.compare(at, 6, "dword:") == 0) {
      value.type = SettingsStore::Type::Dword;
      const std::string hex = line.substr(at + 6);
      if (hex.empty() || hex.size() > 8 || !ParseDword(hex, value.dword, 16))
        return error = where + "a dword is up to eight hexadecimal digits", false;
    } else if (!Unquote(line, at, value.text) ||
               line.find_first_not_of(" \t", at) != std::string::npos) {
      return error = where + "expected a quoted string or dword:XXXXXXXX", false;
    }
    keys.back().values.push_back(std::move(value));
  }
  return true;
}

int Get(const SettingsStore& store, const std::string& key, const std::string& name) {
  SettingsStore::Value value;
  if (!store.Read(key, name, value))
    return FailFinding("no value \"" + name + "\" under \"" + key + "\" in " +
                       store.DatabasePath());
  if (value.type == SettingsStore::Type::Dword)
    std::cout << value.dword << "\n";
  else
    std::cout << value.text << "\n";
  return 0;
}

int Set(const SettingsStore& store, const std::vector<std::string>& args) {
  const bool dword = args.size() == 5 && args[4] == "--dword";
  if (args.size() != 4 && !dword) return Usage();
  SettingsStore::Value value;
  if (dword) {
    value.type = SettingsStore::Type::Dword;
    if (!ParseDword(args[3], value.dword))
      return Fail("\"" + args[3] + "\" is not a DWORD (0 to 4294967295, or 0x hexadecimal)");
  } else {
    value.text = args[3];
  }
  if (!store.Write(args[1], args[2], value))
    return Fail("could not write " + SettingsStore::LastError());
  return 0;
}

int Delete(const SettingsStore& store, const std::vector<std::string>& args) {
  if (args.size() == 3) {
    if (!store.DeleteValue(args[1], args[2]))
      return FailFinding("no value \"" + args[2] + "\" under \"" + args[1] + "\"");
  } else if (!store.DeleteKey(args[1])) {
    return FailFinding("no key \"" + args[1] + "\"");
  }
  return 0;
}

int List(const SettingsStore& store, const std::string& key) {
  std::vector<std::string> subkeys;
  std::vector<SettingsStore::Key> keys;
  if (!store.ListSubkeys(key, subkeys) || !store.Export(key, keys))
    return FailFinding("no key \"" + key + "\" in " + store.DatabasePath());
  for (const std::string& subkey : subkeys)
    std::cout << subkey << "\\\n";
  for (const SettingsStore::Value& value : keys.front().values)
    std::cout << ValueLine(value) << "\n";
  return 0;
}

int Export(const SettingsStore& store, const std::string& key) {
  std::vector<SettingsStore::Key> keys;
  if (!store.Export(key, keys))
    return FailFinding("no key \"" + key + "\" in " + store.DatabasePath());
  std::cout << "; veskan-settings export of " << store.DatabasePath() << "\n";
  for (const SettingsStore::Key& found : keys) {
    if (found.path.empty() && found.values.empty()) continue;
    std::cout << "\n[" << found.path << "]\n";
    for (const SettingsStore::Value& value : found.values)
      std::cout << ValueLine(value) << "\n";
  }
  return 0;
}

int Import(const SettingsStore& store, const std::string& path) {
  std::ifstream file;
  if (path != "-") {
    file.open(path);
    if (!file) return Fail("cannot read " + path + ": " + std::strerror(errno));
  }
  std::vector<SettingsStore::Key> keys;
  std::string error;
  if (!ParseExport(path == "-" ? std::cin : file, keys, error))
    return Fail(path + ": " + error + "; nothing imported");
  if (!store.Import(keys))
    return Fail("could not write " + SettingsStore::LastError() + "; nothing imported");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args;
  bool user = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--user") == 0)
      user = true;
    else
      args.emplace_back(argv[i]);
  }
  if (args.empty()) return Usage();
  // Failures are told in the one line of the exit status's reason.
  Veskan::Logger::SetThreshold(Veskan::Logger::Severity::Error);
  const SettingsStore store(user ? SettingsStore::Hive::User : SettingsStore::Hive::Machine);
  const std::string& command = args[0];
  if (command == "get" && args.size() == 3) return Get(store, args[1], args[2]);
  if (command == "set") return Set(store, args);
  if (command == "delete" && (args.size() == 2 || args.size() == 3)) return Delete(store, args);
  if (command == "list" && args.size() == 2) return List(store, args[1]);
  if (command == "export" && args.size() <= 2)
    return Export(store, args.size() == 2 ? args[1] : "");
  if (command == "import" && args.size() == 2) return Import(store, args[1]);
  return Usage();
}

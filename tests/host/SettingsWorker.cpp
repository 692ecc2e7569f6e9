// One of several processes writing settings into shared keys while reading the others' values.
//
//   veskan_settings_worker ID COUNT
//
// Writes COUNT values through Preferences into the machine hive (VESKAN_MACHINE_REGISTRY): value
// "P<ID>-<i>" under "Shared\K<i mod 10>", a string "<ID>:<i>:" padded to 200 bytes, and after
// each write reads back the value another worker wrote under the same number. Exit status 0 when
// every write succeeded and every value read was whole; 1 with the first fault on stderr.
#include <veskan/Preferences.h>
#include <veskan/SettingsStore.h>

#include <iostream>
#include <string>

namespace {

std::string Expected(int id, int i) {
  std::string text = std::to_string(id) + ":" + std::to_string(i) + ":";
  text.resize(200, static_cast<char>('a' + (id + i) % 26));
  return text;
}

Veskan::StringBuffer Key(int i) {
  return Veskan::UTF8to16(("Shared\\K" + std::to_string(i % 10)).c_str());
}

Veskan::StringBuffer Name(int id, int i) {
  return Veskan::UTF8to16(("P" + std::to_string(id) + "-" + std::to_string(i)).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  using Veskan::Preferences;
  if (argc != 3) return 2;
  const int id = std::stoi(argv[1]);
  const int count = std::stoi(argv[2]);
  // What is tested is that no write is lost or torn while the time-out has not passed; built
  // with a sanitizer on a busy machine, four writers can keep one waiting longer than 5 s.
  Veskan::SettingsStore::SetBusyTimeoutMs(60000);
  for (int i = 0; i < count; ++i) {
    const Veskan::StringBuffer value = Veskan::UTF8to16(Expected(id, i).c_str());
    if (!Preferences::WriteStringValue(false, Key(i).c_str(), Name(id, i).c_str(),
                                       Preferences::File, value.c_str())) {
      std::cerr << "write " << i << " failed\n";
      return 1;
    }
    const int other = (id + 1) % 4;
    const std::string read =
        Preferences::ReadStringValue(false, Key(i).c_str(), Name(other, i).c_str(),
                                     Preferences::File, u"")
            .ToUTF8();
    if (!read.empty() && read != Expected(other, i)) {
      std::cerr << "torn value of worker " << other << " at " << i << ": " << read << "\n";
      return 1;
    }
  }
  return 0;
}

#include "TestSupport.h"

#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

namespace Veskan {
namespace Testing {

TemporaryFolder::TemporaryFolder() {
  std::random_device entropy;
  std::ostringstream name;
  name << "veskan-test-" << std::hex << entropy() << entropy();
  path_ = std::filesystem::temp_directory_path() / name.str();
  std::filesystem::create_directories(path_);
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

StringBuffer TemporaryFolder::File(const std::string& name) const {
  return StringBuffer((path_ / name).string());
}

StringBuffer TemporaryFolder::WriteFile(const std::string& name, const std::string& bytes) const {
  std::ofstream((path_ / name).string(), std::ios::binary) << bytes;
  return File(name);
}

int CountOpenDescriptors() {
  int count = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/self/fd");
       it != std::filesystem::directory_iterator(); ++it) {
    ++count;
  }
  return count;
}

std::string ReadWholeFile(const StringBuffer& path) {
  std::ifstream stream(path.ToUTF8(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

}  // namespace Testing
}  // namespace Veskan

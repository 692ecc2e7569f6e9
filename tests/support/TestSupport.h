// Helpers shared by the test suites: temporary folders and descriptor counts.
#ifndef VESKAN_TESTS_TESTSUPPORT_H
#define VESKAN_TESTS_TESTSUPPORT_H

#include <veskan/StringBuffer.h>

#include <filesystem>
#include <string>

namespace Veskan {
namespace Testing {

// A fresh folder under the system's temporary folder, removed with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  // The path of `name` inside the folder, as the library takes paths.
  StringBuffer File(const std::string& name) const;
  // Writes `bytes` to `name` inside the folder and returns its path.
  StringBuffer WriteFile(const std::string& name, const std::string& bytes) const;

 private:
  std::filesystem::path path_;
};

// The number of descriptors this process has open.
int CountOpenDescriptors();

// The contents of a file, or "" when it cannot be read.
std::string ReadWholeFile(const StringBuffer& path);

}  // namespace Testing
}  // namespace Veskan

#endif

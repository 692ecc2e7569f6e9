// Loading shared libraries at run time and looking up their exports.
#ifndef VESKAN_SYS_DYNAMICLIBRARY_H
#define VESKAN_SYS_DYNAMICLIBRARY_H

#include <string>

namespace Veskan {
namespace Sys {

// Owns one loaded library; unloads it when destroyed or closed. The system counts loads, so two
// owners of the same library share one copy of it in memory.
//
// Thread safety: one object is not shared between threads while it is opened or closed; Symbol
// may be called from several threads at once.
class DynamicLibrary {
 public:
  DynamicLibrary() = default;
  DynamicLibrary(const DynamicLibrary&) = delete;
  DynamicLibrary& operator=(const DynamicLibrary&) = delete;
  ~DynamicLibrary() { Close(); }

  // Loads `name`: a file name looked up on the system's library search path, or a path holding a
  // '/'. Any library held before is unloaded first. On failure returns false and keeps the
  // system's reason for Error.
  bool Open(const char* name);
  void Close();
  bool IsOpen() const { return handle_ != nullptr; }

  // The address of the exported symbol `name`, or null when the library is not open or does not
  // export it.
  void* Symbol(const char* name) const;

  // Why the last Open failed ("" after a success).
  const std::string& Error() const { return error_; }

 private:
  void* handle_ = nullptr;
  std::string error_;
};

}  // namespace Sys
}  // namespace Veskan

#endif

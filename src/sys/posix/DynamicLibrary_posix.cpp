// Dynamic loading on POSIX: dlopen, dlsym and dlclose.
#include "sys/DynamicLibrary.h"

#include <dlfcn.h>

namespace Veskan {
namespace Sys {

bool DynamicLibrary::Open(const char* name) {
  Close();
  error_.clear();
  if (name == nullptr) {
    error_ = "no library name";
    return false;
  }
  // RTLD_NOW: a library with unresolved symbols fails here, not at its first call.
  handle_ = ::dlopen(name, RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    const char* reason = ::dlerror();
    error_ = reason != nullptr ? reason : "unknown error";
    return false;
  }
  return true;
}

void DynamicLibrary::Close() {
  if (handle_ != nullptr) {
    ::dlclose(handle_);
    handle_ = nullptr;
  }
}

void* DynamicLibrary::Symbol(const char* name) const {
  if (handle_ == nullptr || name == nullptr) return nullptr;
  return ::dlsym(handle_, name);
}

}  // namespace Sys
}  // namespace Veskan

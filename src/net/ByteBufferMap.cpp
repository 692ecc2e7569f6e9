// Daemon: the shared buffer map, through which host and engine hand large bodies over by name.
#include <veskan/Daemon.h>
#include <veskan/Logger.h>

#include <map>

namespace Veskan {

namespace {

std::recursive_mutex byteBufferMutex;
std::map<StringBuffer, ByteBuffer>& ByteBufferMap() {
  static std::map<StringBuffer, ByteBuffer> map;
  return map;
}

}  // namespace

void Daemon::AddByteBuffer(const StringBuffer& key, const ByteBuffer& buffer) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::AddByteBuffer") << " keyString: " << key;
  std::lock_guard<std::recursive_mutex> lock(byteBufferMutex);
  ByteBufferMap()[key] = buffer;
}

ByteBuffer Daemon::FindOrInsertByteBuffer(const StringBuffer& key) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::FindOrInsertByteBuffer")
      << " keyString: " << key;
  std::lock_guard<std::recursive_mutex> lock(byteBufferMutex);
  return ByteBufferMap()[key];
}

void Daemon::RemoveByteBuffer(const StringBuffer& key) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::RemoveByteBuffer")
      << " keyString: " << key;
  std::lock_guard<std::recursive_mutex> lock(byteBufferMutex);
  ByteBufferMap().erase(key);
}

void Daemon::ClearByteBuffer() {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::ClearByteBuffer");
  std::lock_guard<std::recursive_mutex> lock(byteBufferMutex);
  ByteBufferMap().clear();
}

int Daemon::ByteBufferMapCount() {
  std::lock_guard<std::recursive_mutex> lock(byteBufferMutex);
  return static_cast<int>(ByteBufferMap().size());
}

}  // namespace Veskan

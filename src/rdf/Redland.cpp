#include "rdf/Redland.h"

#include <veskan/Logger.h>

namespace Veskan {
namespace Detail {

namespace {

// The innermost counter of the thread's current operation; librdf logs on the calling thread.
thread_local LibrdfErrors* current = nullptr;

}  // namespace

void FreeLibrdfMemory(unsigned char* text) {
  librdf_free_memory(text);
}

StringBuffer FromUtf8(const unsigned char* text) {
  return text ? UTF8to16(reinterpret_cast<const char*>(text)) : StringBuffer();
}

StringBuffer FromUtf8(const unsigned char* text, std::size_t length) {
  return text ? UTF8to16(reinterpret_cast<const char*>(text), 0, static_cast<int>(length))
              : StringBuffer();
}

UriPtr NewUri(const std::string& text) {
  if (!RDF::world) return nullptr;
  return UriPtr(librdf_new_uri(RDF::world, Bytes(text)));
}

LibrdfErrors::LibrdfErrors() : outer_(current) {
  current = this;
}

LibrdfErrors::~LibrdfErrors() {
  current = outer_;
}

int OnLibrdfLog(void*, librdf_log_message* message) {
  const librdf_log_level level = librdf_log_message_level(message);
  if (level >= LIBRDF_LOG_ERROR && current) ++current->count_;
  const char* text = librdf_log_message_message(message);
  Logger::Line(Logger::Severity::Debug, "Veskan::RDF")
      << (level >= LIBRDF_LOG_ERROR ? " error: " : " warning: ") << (text ? text : "");
  return 1;  // handled: nothing reaches stderr
}

void InstallLibrdfLogger(librdf_world* world) {
  librdf_world_set_logger(world, nullptr, OnLibrdfLog);
}

}  // namespace Detail
}  // namespace Veskan

#include "rdf/Redland.h"

#include <veskan/Logger.h>

namespace Veskan {
namespace Detail {

namespace {

// The innermost counter of the thread's current operation; librdf logs on the calling thread.
thread_local LibrdfErrors* current = nullptr;

// EmptyModel's parts, under the world's lock; freed by FreeEmptyModel, never by a destructor.
librdf_storage* emptyStorage = nullptr;
librdf_model* emptyModel = nullptr;

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

librdf_model* EmptyModel() {
  if (!emptyModel && RDF::world) {
    emptyStorage = librdf_new_storage(RDF::world, "memory", nullptr, nullptr);
    emptyModel = emptyStorage ? librdf_new_model(RDF::world, emptyStorage, nullptr) : nullptr;
  }
  return emptyModel;
}

void FreeEmptyModel() {
  WorldLock lock = LockWorld();
  if (emptyModel) librdf_free_model(emptyModel);
  if (emptyStorage) librdf_free_storage(emptyStorage);
  emptyModel = nullptr;
  emptyStorage = nullptr;
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

void LibrdfErrors::Report(bool error, const char* text) {
  if (error && current) ++current->count_;
  Logger::Line(Logger::Severity::Debug, "Veskan::RDF")
      << (error ? " error: " : " warning: ") << (text ? text : "");
}

namespace {

int OnLibrdfLog(void*, librdf_log_message* message) {
  LibrdfErrors::Report(librdf_log_message_level(message) >= LIBRDF_LOG_ERROR,
                       librdf_log_message_message(message));
  return 1;  // handled: nothing reaches stderr
}

// rasqal's messages about queries it parses for the library (librdf routes only its own runs).
void OnRasqalLog(void*, raptor_log_message* message) {
  LibrdfErrors::Report(message->level >= RAPTOR_LOG_LEVEL_ERROR, message->text);
}

}  // namespace

void InstallLibrdfLogger(librdf_world* world) {
  librdf_world_set_logger(world, nullptr, OnLibrdfLog);
}

void InstallRasqalLogger(librdf_world* world) {
  if (rasqal_world* rasqal = librdf_world_get_rasqal(world))
    rasqal_world_set_log_handler(rasqal, nullptr, OnRasqalLog);
}

}  // namespace Detail
}  // namespace Veskan

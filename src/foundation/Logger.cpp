// The process-wide diagnostics sink.
#include <veskan/Logger.h>

#include <veskan/StringBuffer.h>

#include "foundation/Utf.h"

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

namespace Veskan {

namespace {

void WriteToStandardError(Logger::Severity::Enumeration severity, const char* message, int number) {
  // One fprintf per line, so lines of concurrent writers do not interleave.
  const std::string name = StringBuffer(Logger::Severity::ToString(severity)).ToUTF8();
  if (number != 0) {
    std::fprintf(stderr, "veskan %s: %s (%d)\n", name.c_str(), message, number);
  } else {
    std::fprintf(stderr, "veskan %s: %s\n", name.c_str(), message);
  }
}

bool EqualsIgnoringAsciiCase(const char* a, const char* b) {
  for (; *a && *b; ++a, ++b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    if (lower(*a) != lower(*b)) return false;
  }
  return *a == *b;
}

Logger::Severity::Enumeration InitialThreshold() {
  return Logger::Severity::Parse(std::getenv("VESKAN_LOG"), Logger::Severity::Warning);
}

// The logger's state, made on first use so that logging works during static initialisation.
struct State {
  std::atomic<int> threshold{InitialThreshold()};
  std::mutex sinkMutex;
  std::shared_ptr<const Logger::Sink> sink;  // null: the default sink
};

State& TheState() {
  static State* state = new State();  // never destroyed: threads may log during exit
  return *state;
}

}  // namespace

const char16_t* Logger::Severity::ToString(Enumeration value) {
  switch (value) {
    case Trace:
      return u"Trace";
    case Debug:
      return u"Debug";
    case Information:
      return u"Information";
    case Warning:
      return u"Warning";
    case Error:
      return u"Error";
    case Off:
      return u"Off";
  }
  return u"##invalid value##";
}

Logger::Severity::Enumeration Logger::Severity::Parse(const char* text, Enumeration fallback) {
  if (!text || !*text) return fallback;
  static const struct {
    const char* name;
    Enumeration value;
  } Names[] = {{"trace", Trace},      {"debug", Debug},     {"information", Information},
               {"info", Information}, {"warning", Warning}, {"error", Error},
               {"off", Off},          {"none", Off}};
  for (const auto& entry : Names) {
    if (EqualsIgnoringAsciiCase(text, entry.name)) return entry.value;
  }
  int number = 0;
  const char* end = text + std::strlen(text);
  const auto result = std::from_chars(text, end, number);
  if (result.ec == std::errc() && result.ptr == end && number >= Trace && number <= Off) {
    return static_cast<Enumeration>(number);
  }
  return fallback;
}

bool Logger::IsEnabled(Severity::Enumeration severity) {
  return severity >= TheState().threshold.load(std::memory_order_relaxed) &&
         severity < Severity::Off;
}

void Logger::Write(Severity::Enumeration severity, const char* message, int number) {
  if (!IsEnabled(severity)) return;
  State& state = TheState();
  std::shared_ptr<const Sink> sink;
  {
    std::lock_guard<std::mutex> lock(state.sinkMutex);
    sink = state.sink;
  }
  const char* text = message ? message : "";
  if (sink) {
    (*sink)(severity, text, number);
  } else {
    WriteToStandardError(severity, text, number);
  }
}

Logger::Sink Logger::SetSink(Sink sink) {
  State& state = TheState();
  auto replacement = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  std::lock_guard<std::mutex> lock(state.sinkMutex);
  std::shared_ptr<const Sink> previous = std::exchange(state.sink, std::move(replacement));
  return previous ? *previous : Sink();
}

void Logger::SetThreshold(Severity::Enumeration threshold) {
  TheState().threshold.store(threshold, std::memory_order_relaxed);
}

Logger::Severity::Enumeration Logger::Threshold() {
  return static_cast<Severity::Enumeration>(TheState().threshold.load(std::memory_order_relaxed));
}

Logger::Line::Line(Severity::Enumeration severity, const char* method, int number)
    : severity_(severity), number_(number), enabled_(IsEnabled(severity)) {
  if (enabled_ && method) text_ = method;
}

Logger::Line::~Line() {
  if (enabled_) Write(severity_, text_.c_str(), number_);
}

Logger::Line& Logger::Line::operator<<(const char* text) {
  if (enabled_ && text) text_ += text;
  return *this;
}

Logger::Line& Logger::Line::operator<<(const std::string& text) {
  if (enabled_) text_ += text;
  return *this;
}

Logger::Line& Logger::Line::operator<<(const char16_t* text) {
  if (enabled_ && text) text_ += Detail::EncodeUtf8(text, StringLength(text));
  return *this;
}

Logger::Line& Logger::Line::operator<<(const StringBuffer& text) {
  if (enabled_) text_ += text.ToUTF8();
  return *this;
}

Logger::Line& Logger::Line::operator<<(char character) {
  if (enabled_) text_ += character;
  return *this;
}

Logger::Line& Logger::Line::operator<<(bool value) {
  if (enabled_) text_ += value ? "true" : "false";
  return *this;
}

Logger::Line& Logger::Line::operator<<(double value) {
  if (enabled_) text_ += FormatDouble(value).ToUTF8();
  return *this;
}

}  // namespace Veskan

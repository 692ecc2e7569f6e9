// Logger: the process-wide diagnostics sink through which every part of the library reports.
//
// Lines read "Veskan::Class::Method label: value label: value", for example
// "Veskan::ByteBuffer::MemoryMap file: /tmp/x error: 2". The host replaces the sink to route them
// into its own log; the default sink writes to stderr. Lines below the threshold cost one atomic
// load and are never formatted.
#ifndef VESKAN_LOGGER_H
#define VESKAN_LOGGER_H

#include <veskan/Export.h>

#include <functional>
#include <string>
#include <type_traits>

namespace Veskan {

class StringBuffer;

// Thread safety: every member may be called from any thread. The sink is called on the thread that
// writes the line, without any lock of the logger held, possibly from several threads at once.
class VESKAN_API Logger {
 public:
  class VESKAN_API Severity {
   public:
    enum Enumeration : int {
      Trace = 1,
      Debug = 2,
      Information = 3,
      Warning = 4,
      Error = 5,
      Off = 6,  // as a threshold: nothing is written
    };
    static const char16_t* ToString(Enumeration value);
    // "trace", "debug", "information" (or "info"), "warning", "error", "off" (or "none"), without
    // regard to case, or their numbers; anything else (null included) gives `fallback`.
    static Enumeration Parse(const char* text, Enumeration fallback);
  };

  // Receives one finished line: its severity, the UTF-8 message and a number (an error code or 0).
  using Sink = std::function<void(Severity::Enumeration, const char* message, int number)>;

  // Writes a line when `severity` reaches the threshold.
  static void Write(Severity::Enumeration severity, const char* message, int number = 0);
  // True when a line of `severity` would be written.
  static bool IsEnabled(Severity::Enumeration severity);

  // Installs `sink` for every later line and returns the one it replaces; an empty sink restores
  // the default, which writes to stderr.
  static Sink SetSink(Sink sink);
  // The lowest severity written. Initially from the environment variable VESKAN_LOG, else
  // Warning.
  static void SetThreshold(Severity::Enumeration threshold);
  static Severity::Enumeration Threshold();

  // Builds one line and writes it when it goes out of scope:
  //   Logger::Line(Logger::Severity::Warning, "Veskan::Daemon::Accept") << " socket:" << fd;
  // Nothing is formatted when the severity is below the threshold.
  class VESKAN_API Line {
   public:
    Line(Severity::Enumeration severity, const char* method, int number = 0);
    ~Line();
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    Line& operator<<(const char* text);
    Line& operator<<(const std::string& text);
    Line& operator<<(const char16_t* text);
    Line& operator<<(const StringBuffer& text);
    Line& operator<<(char character);
    Line& operator<<(bool value);
    Line& operator<<(double value);
    template <typename Integer, typename = std::enable_if_t<std::is_integral<Integer>::value>>
    Line& operator<<(Integer value) {
      if (enabled_) text_ += std::to_string(value);
      return *this;
    }

   private:
    Severity::Enumeration severity_;
    int number_;
    bool enabled_;
    std::string text_;
  };
};

}  // namespace Veskan

#endif

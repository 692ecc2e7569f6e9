// Helpers: process-level services for the library's host programs.
#ifndef VESKAN_HELPERS_H
#define VESKAN_HELPERS_H

#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

#include <cstdint>
#include <functional>

namespace Veskan {

// Operations that connect the library to the desktop and the machine: help, message boxes,
// well-known folders, command lines, starting programs and services, gzip files and mail.
// Every one reports failure by its result (false, -1 or empty) and never throws.
//
// Thread safety: every operation may be called from any thread; the handlers and settings below
// are process-wide.
class VESKAN_API Helpers {
 public:
  // The online help's redirect address, the start of every HelpUrl.
  static constexpr const char16_t* HelpServer = u"https://help.calvortechnologies.com/redirect";

  // "<HelpServer>/?lang=<language>&project=folivo&version=14_1_0&system=windows&context=": the
  // caller appends the context.
  static StringBuffer HelpUrl(const StringBuffer& language);
  // Opens help for `context` with the desktop's handler (xdg-open): a "help://" context is
  // mapped through HelpUrl in the current language ("help://Tallyo": the product's own help),
  // anything else opened as it is. True when the handler started.
  static bool Help(const StringBuffer& context);

  // A message box's buttons (the low two bits of AlertUser's styles) and its icon.
  enum AlertButtons { Ok = 0, OkCancel = 1, YesNo = 2, YesNoCancel = 3 };
  enum AlertIcon { NoIcon, QuestionIcon, ErrorIcon };
  // The button the user chose.
  enum AlertAnswer { AnsweredOk, AnsweredCancel, AnsweredYes, AnsweredNo };
  using AlertHandler =
      std::function<AlertAnswer(const StringBuffer& title, const StringBuffer& message,
                                AlertButtons buttons, AlertIcon icon)>;
  // Installs the handler that shows message boxes (null: the default, which writes the title
  // and message to standard error and answers with the first button).
  static void SetAlertHandler(AlertHandler handler);
  // Shows a message box: styles' low two bits choose the buttons, Yes/No ones with a question
  // icon; the bit of value 4 adds the error icon to OK and OK/Cancel boxes. -1 for Cancel, 1 for
  // No, 0 for OK or Yes (0 means go ahead). Null texts count as empty.
  static int AlertUser(const char16_t* title, const char16_t* message, int styles);

  // "#documents", "#desktop" (the XDG folders, user-dirs.dirs when present), "#temp" ($TMPDIR,
  // else /tmp), "#home" ($HOMEDRIVE followed by $HOMEPATH when both are set, else the home
  // folder), "#support" ($XDG_CONFIG_HOME, else ~/.config); names compared without regard to
  // case; anything else, or a folder longer than 3199 characters, gives empty.
  static StringBuffer GetUserDirectory(const StringBuffer& name);
  // The folder of the running program's executable, without a final slash.
  static StringBuffer GetApplicationDirectory();
  static StringBuffer GetProductName();
  // "LanguageId" under the language-setup key of the machine's settings (1033 when unset).
  static int GetCurrentLanguageId();

  // Splits a command line into `args` (appended): tokens separated by spaces and tabs; a token
  // starting with a double quote or an apostrophe runs to the next one of the same kind, quotes
  // left out. Logs the line at Debug.
  static void CommandLineToArgv(const StringBuffer& commandLine, StringList& args);
  // True exactly when both are the same pointer: callers pass canonical answer texts.
  static bool IsEqualAnswer(const char16_t* a, const char16_t* b) { return a == b; }
  static bool FileExists(const StringBuffer& path);

  // Launch's flags.
  enum LaunchFlags { LaunchWait = 1, LaunchReturnProcess = 4 };
  // Starts the command line's program (the first token) with the rest as its arguments, never
  // through a shell; a first token that is no executable program (a document, an address) is
  // opened with the desktop's handler. With LaunchWait it waits for the program to end. Returns
  // -1 when it could not start; else 0, or with LaunchReturnProcess the process id (with
  // LaunchWait as well: the exit status).
  static int Launch(const StringBuffer& commandLine, int flags = 0);

  // Starts the hardware service's systemd unit ("tallyo-hardware.service") unless it is active;
  // true when it runs.
  static bool EnsureHardwareServiceIsRunning();
  // Whether the software service answers on its current port (CurrentBasePort) on this machine.
  static bool IsSoftwareServiceRunningLocally();
  // Starts "TallyoSoftwareService" from the application folder unless the service answers, and
  // waits up to 10 s for it to answer.
  static bool EnsureSoftwareServiceIsRunning();

  // Compress a file to gzip, or expand one, streaming (memory stays small whatever the size).
  // The target appears whole or not at all. GunzipFile gives false for a damaged or truncated
  // file and for one that expands past the limit (a gzip bomb).
  static bool GzipFile(const StringBuffer& source, const StringBuffer& target);
  static bool GunzipFile(const StringBuffer& source, const StringBuffer& target);
  // The most bytes GunzipFile writes (default 4 GiB).
  static void SetGunzipLimit(std::uint64_t bytes);

  // Mails `body` with the file at `filePath` (none when null or empty) attached as `fileName` of
  // `mediaType`, through the mail relay (SetMailRelay; localhost port 25 by default). The whole
  // conversation is sent at once; true when the relay accepted each command and the message.
  static bool EmailFileAsAttachment(const char16_t* senderName, const char16_t* senderAddress,
                                    const char16_t* recipientName, const char16_t* recipientAddress,
                                    const char16_t* subject, const char16_t* body,
                                    const char16_t* filePath, const char16_t* fileName,
                                    const char16_t* mediaType);
  // The relay EmailFileAsAttachment talks to: a dotted IPv4 address or "localhost", and a port.
  static void SetMailRelay(const char* host, int port);

  // The desktop's file dialogs, through zenity when it is installed: the chosen paths, empty when
  // cancelled or when there is no zenity. `filter` is a zenity file filter ("Quizzes | *.rdf").
  static StringList BrowseToOpenFiles(const StringBuffer& title, const StringBuffer& filter,
                                      bool multiple);
  static StringList BrowseToOpenFolder(const StringBuffer& title);
  static StringList BrowseToSaveFile(const StringBuffer& title, const StringBuffer& fileName);

  // What the platform needs before the rest: nothing here but ignoring SIGPIPE, so that a peer
  // that goes away cannot end the process. The handle is for PlatformSpecificCleanup's symmetry.
  static void* PlatformSpecificStartup();
  // Destroys the host's last Globals with the platform clean-up flag set to `cleanup` for the
  // duration, so that with `cleanup` true Xerces, the XPath engine, librdf and ICU are really
  // torn down.
  //
  // `object` is the address of heap storage (made with `new Globals*`) that holds a pointer to a
  // Globals made with `new` (or to an object of a class derived from it). The Globals is deleted
  // through its virtual destructor, the flag is cleared, the stored pointer is set to null and the
  // storage is deleted. A null `object` or a null stored pointer deletes nothing more.
  //
  // Thread safety: the flag holds for the calling thread only, so a Globals that another thread
  // destroys meanwhile never tears the libraries down because of it.
  static void PlatformSpecificCleanup(void* object, bool cleanup);
};

}  // namespace Veskan

#endif

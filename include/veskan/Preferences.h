// Preferences: the names, defaults and store of the settings that every program of the system
// shares (ports, paths, hardware tuning), so that a setting is spelled once.
#ifndef VESKAN_PREFERENCES_H
#define VESKAN_PREFERENCES_H

#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

namespace Veskan {

// Settings live in two hives, each one SQLite database: the machine's (shared by every user;
// $VESKAN_MACHINE_REGISTRY, else /var/lib/veskan/registry.db) and the current user's
// ($VESKAN_USER_REGISTRY, else $XDG_CONFIG_HOME/veskan/registry.db, ~/.config when unset). A
// setting is found by its hive, a key path of names separated by backslashes and a value name;
// paths and names compare without regard to case. A value is a 32-bit integer (a DWORD) or a
// string.
//
// Reads never fail outward: a missing, unreadable, corrupt or locked store gives the default.
// Writes are atomic and give false on any failure; a store that another process holds locked
// is waited for up to Store::BusyTimeoutMs. Each failure is logged once per database and kind
// until an operation on that database succeeds again.
//
// Thread safety: every operation may be called from any thread, and from several processes at
// once on the same databases.
class VESKAN_API Preferences {
 public:
  // The store identifier that selects the settings databases; any other reaches no store.
  static constexpr const char16_t* File = u"com.calvorco.Registry";
  static constexpr const char16_t* HiddenFile = File;
  // The product's root key, and two keys under the maker's.
  static constexpr const char16_t* Path = u"Software\\Calvor Technologies\\Tallyo";
  static constexpr const char16_t* SoftwareServicePath =
      u"Software\\Calvor Technologies\\Tallyo\\SoftwareService";
  static constexpr const char16_t* PraxelloSuitePath =
      u"Software\\Calvor Technologies\\Calvor Praxello Suite";

  // The stored DWORD, or `defaultValue` when the value is missing, of another type or unreadable.
  static int ReadIntegerValue(bool perUser, const char16_t* keyPath, const char16_t* valueName,
                              const char16_t* store, int defaultValue);
  // Stores `value` as a DWORD, creating the key and its parents when needed.
  static bool WriteIntegerValue(bool perUser, const char16_t* keyPath, const char16_t* valueName,
                                const char16_t* store, int value);
  // The stored string, or `defaultValue` (null: empty) when missing, of another type or
  // unreadable.
  static StringBuffer ReadStringValue(bool perUser, const char16_t* keyPath,
                                      const char16_t* valueName, const char16_t* store,
                                      const char16_t* defaultValue);
  static bool WriteStringValue(bool perUser, const char16_t* keyPath, const char16_t* valueName,
                               const char16_t* store, const char16_t* value);

  class VESKAN_API SoftwareService {
   public:
    static constexpr const char16_t* Key = u"SoftwareService";
    static constexpr const char16_t* HttpPort = u"HttpPort";
    static constexpr int DefaultHttpPort = 23456;
    static constexpr const char16_t* HttpsPort = u"HttpsPort";
    static constexpr int DefaultHttpsPort = 23457;
    static constexpr const char16_t* BasePort = u"BasePort";
    static constexpr const char16_t* DefaultBasePort = u"23456";
    static constexpr const char16_t* SecureBasePort = u"SecureBasePort";
    static constexpr const char16_t* DefaultSecureBasePort = u"23457";
    static constexpr const char16_t* BaseFilePort = u"FilePort";
    static constexpr const char16_t* DefaultBaseFilePort = u"23458";
    static constexpr int DefaultFileHttpPort = 23458;
    // Written by the running service: the ports it actually bound.
    static constexpr const char16_t* CurrentBasePort = u"CurrentBasePort";
    static constexpr const char16_t* CurrentSecureBasePort = u"CurrentSecureBasePort";
    static constexpr const char16_t* CurrentFilePort = u"CurrentFilePort";
    static constexpr const char16_t* Uri = u"Uri";
    static constexpr const char16_t* DefaultUri = u"http://localhost:23456";
    static constexpr const char16_t* Certificate = u"Certificate";
    static constexpr const char16_t* DefaultCertificate = u"dh";
    static constexpr const char16_t* PrivateKey = u"PrivateKey";
    static constexpr const char16_t* DefaultPrivateKey = u"";
    static constexpr const char16_t* CertificateFolder = u"CertificateFolder";
    static constexpr const char16_t* DefaultCertificateFolder = u"";
    static constexpr const char16_t* AllowAnon = u"AllowAnon";  // a DWORD flag
    static constexpr const char16_t* HistoryFile = u"HistoryFile";
    static constexpr const char16_t* DefaultHistoryFileName = u"TallyoSoftwareService.history.xml";
    static constexpr const char16_t* TransactionLogFile = u"TransactionLogFile";
    static constexpr const char16_t* DefaultTransactionLogFileName =
        u"TallyoSoftwareServiceTransactions.log";
    static constexpr const char16_t* Logging = u"Logging";  // a DWORD flag
    static constexpr const char16_t* NetworkName = u"NetworkName";
    static constexpr const char16_t* DefaultFeedback = u"DefaultFeedback";
    // The clickers' power and signal tuning, kept here with the service that applies it.
    static constexpr const char16_t* PowerSaveGrace = u"PowerSaveGrace";
    static constexpr int DefaultPowerSaveGrace = 90;
    static constexpr const char16_t* PoorSignalization = u"PoorSignalization";
    static constexpr int DefaultPoorSignalization = 45;
    static constexpr const char16_t* TurnOffDelay = u"TurnOffDelay";
    static constexpr int DefaultTurnOffDelay = 10800;
    static constexpr const char16_t* TallyoVEServerHost = u"TallyoVEServerHost";
    static constexpr const char16_t* TallyoVEServerPath = u"TallyoVEServerPath";
    static constexpr const char16_t* TallyoVEWebsite = u"TallyoVEWebsite";
    static constexpr const char16_t* TallyoVEThreshold = u"TallyoVEThreshold";

    // "http://localhost:" and the port the service bound (CurrentBasePort in the user hive's
    // SoftwareServicePath key; DefaultHttpPort when absent).
    static StringBuffer GetUri();
    // The transaction log's path: TransactionLogFile of the machine hive's SoftwareServicePath
    // key (DefaultTransactionLogFileName when absent); a relative name is taken in
    // $VESKAN_LOG_DIR, else $XDG_STATE_HOME/veskan (~/.local/state when unset).
    static StringBuffer GetLogFilePath();
    // `path` with the current UTC time stamp before its extension, to start a new log beside
    // the old: "x/Log.log" gives "x/Log.2026-11-24T08-15-30.123456Z.log".
    static StringBuffer GetNewLogFilePath(const char16_t* path);
  };

  class VESKAN_API HardwareService {
   public:
    static constexpr const char16_t* Key = u"HardwareService";
    static constexpr const char16_t* BaudRate = u"BaudRate";
    static constexpr int DefaultBaudRate = 19200;
    static constexpr const char16_t* ActiveDuration = u"ActiveDuration";
    static constexpr int DefaultActiveDuration = 6;
    static constexpr const char16_t* EnergyDuration = u"EnergyDuration";
    static constexpr int DefaultEnergyDuration = 5;
    static constexpr const char16_t* BackgroundActiveDuration = u"BackgroundActiveDuration";
    static constexpr int DefaultBackgroundActiveDuration = 7;
    static constexpr const char16_t* BackgroundEnergyDuration = u"BackgroundEnergyDuration";
    static constexpr int DefaultBackgroundEnergyDuration = 6;
    static constexpr const char16_t* BackgroundScanInterval = u"BackgroundScanInterval";
    static constexpr int DefaultBackgroundScanInterval = 7;
    static constexpr const char16_t* ScanThresholdGoodPoor = u"ScanThresholdGoodPoor";
    static constexpr int DefaultScanThresholdGoodPoor = 25;
    static constexpr const char16_t* ScanThresholdExcellentGood = u"ScanThresholdExcellentGood";
    static constexpr int DefaultScanThresholdExcellentGood = 1;
    static constexpr const char16_t* ChannelAnalysis = u"ChannelAnalysis";
    static constexpr int DefaultChannelAnalysis = 0;
    static constexpr const char16_t* ChannelAnalysisFrequency = u"ChannelAnalysisFrequency";
    static constexpr int DefaultChannelAnalysisFrequency = 5;
    // A limit of the hardware, not a stored value.
    static constexpr int MaxQuestionsPerQuiz = 40;

    // A radio channel's energy-detection rating: the less energy on it, the better.
    class VESKAN_API RfChEdRatings {
     public:
      enum Enumeration { Unknown = -1, Poor = 0, Good = 1, Excellent = 2 };
      static const char16_t* ToString(int rating);
    };
    // Rates `value` against `thresholds`, two numbers separated by a space: Excellent below the
    // first, Good below the second, Poor from the second on. Unknown for an empty value or
    // unless there are exactly two thresholds.
    static RfChEdRatings::Enumeration GetRfChEdRating(const char16_t* value,
                                                      const char16_t* thresholds);
  };

  class VESKAN_API Settings {
   public:
    static constexpr const char16_t* Key = u"Settings";
    static constexpr const char16_t* AlertLogOn = u"AlertLogOn";
    static constexpr const char16_t* AlertLogOff = u"AlertLogOff";
    static constexpr const char16_t* AlertRaisedHand = u"AlertRaisedHand";
    static constexpr const char16_t* AlertClickerLowBattery = u"AlertClickerLowBattery";
    static constexpr const char16_t* AlertClickerPoorSignal = u"AlertClickerPoorSignal";
    static constexpr const char16_t* PoorSignalStrength = u"PoorSignalStrength";
    static constexpr int DefaultPoorSignalStrength = 5;
    static constexpr const char16_t* ExportResultsToCSVDefaults = u"ExportResultsToCSVDefaults";

    // PoorSignalStrength of the user hive's Settings key, read on the first call only: later
    // calls give that value whatever the store holds by then.
    static int GetPoorSignalStrength();
  };

  // Paths of the installed programs.
  class VESKAN_API Install {
   public:
    static constexpr const char16_t* Key = u"Install Information";
    static constexpr const char16_t* Manager = u"ManagerPath";
    static constexpr const char16_t* Clicker = u"ClickerPath";
    static constexpr const char16_t* Tray = u"TrayPath";
    static constexpr const char16_t* SoftwareService = u"SoftwareServicePath";
    static constexpr const char16_t* HardwareService = u"HardwareServicePath";
    static constexpr const char16_t* VeskanPath = u"TallyoPath";
    static constexpr const char16_t* TallyoSetupToolPath = u"SetupToolPath";
    static constexpr const char16_t* TallyoSupportPath = u"TallyoSupportPath";
  };

  // The lesson-authoring product's installation: a full key path of its own.
  class VESKAN_API FolivoInstall {
   public:
    static constexpr const char16_t* File = Preferences::File;
    static constexpr const char16_t* Key =
        u"Software\\Calvor Technologies\\Folivo Software\\Install Information";
    static constexpr const char16_t* Value = u"FolivoExePath";
  };

  // The four most recent class-list files and where the last was opened.
  class VESKAN_API ClassList {
   public:
    static constexpr const char16_t* Key = u"Class List";
    static constexpr const char16_t* File1 = u"RecentFile1";
    static constexpr const char16_t* File2 = u"RecentFile2";
    static constexpr const char16_t* File3 = u"RecentFile3";
    static constexpr const char16_t* File4 = u"RecentFile4";
    static constexpr const char16_t* LastOpenedDir = u"LastOpenedDir";
    static constexpr const char16_t* OpenFileArg = u"OpenFileArg";
  };

  // The installed languages: a full key path of its own.
  class VESKAN_API Languages {
   public:
    static constexpr const char16_t* LanguageSetup =
        u"Software\\Calvor Technologies\\Language Setup";
    static constexpr const char16_t* Key = LanguageSetup;
    static constexpr const char16_t* LanguagesFolderKey = u"LanguagesFolder";
    static constexpr const char16_t* TeacherToolsName = u"Teacher Tools";
    static constexpr const char16_t* DesktopMenuName = u"Desktop Menu";
    // The language the lesson-authoring product was installed in: a DWORD in the machine hive
    // holding a 16-bit language identifier (1033 English, 1036 French, 1049 Russian, ...).
    static constexpr const char16_t* FolivoLanguageKey =
        u"Software\\Calvor Technologies\\Language Setup\\Folivo";
    static constexpr const char16_t* LanguageId = u"LanguageId";
  };

  class VESKAN_API VeskanTeacher {
   public:
    static constexpr const char16_t* Key = u"TallyoTeacher";
    static constexpr const char16_t* BasicMode = u"BasicMode";
    static constexpr const char16_t* PageToOpen = u"PageToOpen";
  };

  class VESKAN_API AttendanceCoordinator {
   public:
    static constexpr const char16_t* Key = u"AttendanceCoordinator";
    static constexpr const char16_t* ConnectionInfo = u"ConnectionInfo";
  };

  // The key path of a nested class's `Key` under the product root: Path + "\" + key.
  static StringBuffer ProductKey(const char16_t* key);
};

}  // namespace Veskan

#endif

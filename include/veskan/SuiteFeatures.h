// SuiteFeatures: which kinds of question each clicker edition ("mode") can answer, with what
// limits, and whether a given question can be sent in the current mode.
#ifndef VESKAN_SUITEFEATURES_H
#define VESKAN_SUITEFEATURES_H

#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

#include <memory>

namespace Veskan {

// One capability of a mode and its value. A decision that a mode's map lacks is one the mode
// does not support. Decisions are immutable once built and handed out as shared pointers, so a
// caller may keep one while the matrix is rebuilt.
class VESKAN_API CSuiteFeatureDecisions {
 public:
  explicit CSuiteFeatureDecisions(int decisionId) : decisionId_(decisionId) {}
  virtual ~CSuiteFeatureDecisions() = default;
  CSuiteFeatureDecisions(const CSuiteFeatureDecisions&) = default;
  CSuiteFeatureDecisions& operator=(const CSuiteFeatureDecisions&) = default;

  int GetDecisionId() const { return decisionId_; }

 private:
  int decisionId_;
};

class VESKAN_API CSuiteBoolDecision : public CSuiteFeatureDecisions {
 public:
  CSuiteBoolDecision(int decisionId, bool value)
      : CSuiteFeatureDecisions(decisionId), value_(value) {}
  bool GetValue() const { return value_; }

 private:
  bool value_;
};

class VESKAN_API CSuiteIntDecision : public CSuiteFeatureDecisions {
 public:
  CSuiteIntDecision(int decisionId, int value)
      : CSuiteFeatureDecisions(decisionId), value_(value) {}
  int GetValue() const { return value_; }

 private:
  int value_;
};

class VESKAN_API CSuiteStringBufferDecision : public CSuiteFeatureDecisions {
 public:
  CSuiteStringBufferDecision(int decisionId, StringBuffer value)
      : CSuiteFeatureDecisions(decisionId), value_(std::move(value)) {}
  const StringBuffer& GetValue() const { return value_; }

 private:
  StringBuffer value_;
};

// The process-wide capability matrix: for each of the ten modes, the decisions it holds. The
// rows live as data in the source tree (SuiteFeatureTable.inc); the edition with code "PE" takes
// the character class of the installed language.
//
// Thread safety: every member may be called from any thread. Each call sees one whole matrix;
// a mode change or language update made meanwhile applies from the next call.
class VESKAN_API SuiteFeatures {
 public:
  // The modes: one bit each; a set of modes is a bit mask. 0 is "no mode chosen".
  enum Enumeration : int {
    None = 0,
    Tallyo = 1,
    TallyoCE = 2,
    TallyoLE = 4,
    TallyoPE = 8,
    TallyoXE = 16,
    TallyoVE = 32,
    TallyoMixed = 64,
    TallyoMixedVE = 128,
    TallyoMixedText = 256,
    TallyoMixedVEText = 512,
    AllModes = 1023,
  };

  // The capabilities. Bool decisions say a mode can pose a question format or take a question
  // configuration; int decisions are limits; string decisions are texts.
  enum DECISIONID : int {
    NoDecision = 0,
    ConfigurationName = 1,              // string: the mode's configuration name
    DefaultQuestionConfiguration = 2,   // bool: takes questions of the empty configuration
    TallyoLEQuestionConfiguration = 3,  // bool: takes questions of the "TallyoLE" configuration
    TrueFalse = 4,
    YesNo = 5,
    Choice = 6,
    Selection = 7,
    Fraction = 8,
    Decimal = 9,
    ShortAnswer = 10,
    MinimumChoices = 11,           // int: fewest options of a "choice" question
    MaximumChoices = 12,           // int: most options of a "choice" question
    MinimumSelections = 13,        // int: fewest options of a "selection" question
    MaximumSelections = 14,        // int: most options of a "selection" question
    MaximumTextLength = 15,        // int: longest short answer, in UTF-16 units
    MaximumNumericLength = 16,     // int: longest fraction or decimal answer, in characters
    MaximumQuestionsPerQuiz = 17,  // int
    TextCharacterClass = 27,       // string: the ICU class of characters a text answer may use
    Math = 30,
    EditionCode = 42,  // string: a short code, for three editions
  };

  // Selects "the current mode" in the members that take a mode.
  static constexpr int CurrentMode = -1;
  // Where GetCurrentMode reads the mode after ForceReadFromRegistry: a DWORD in the machine
  // hive, one of the mode values.
  static constexpr const char16_t* RegistryKey =
      u"Software\\Calvor Technologies\\Tallyo\\Suite Features";
  static constexpr const char16_t* RegistryValue = u"Mode";
  // The class that means "any character".
  static constexpr const char16_t* AnyCharacter = u".*";

  // The singleton, built on first use. Its mode is read from the settings on first use.
  static SuiteFeatures& GetInstance();

  SuiteFeatures(const SuiteFeatures&) = delete;
  SuiteFeatures& operator=(const SuiteFeatures&) = delete;

  // Accepts 0 or exactly one mode bit: stores it, stops reading the mode from the settings and
  // rebuilds the matrix. Anything else returns false and changes nothing.
  bool SetMode(int mode);
  // The stored mode, read from the settings first when that was asked for (a stored value that
  // is not a mode reads as 0).
  int GetCurrentMode();
  // The next GetCurrentMode reads the mode from the settings again.
  void ForceReadFromRegistry();
  // True when every bit of `features` is in the current mode. With `refresh` the mode is first
  // reloaded and the matrix rebuilt: the mode becomes `features` itself when `useGiven` (which
  // must then be a valid mode, else nothing changes), else the settings' or stored mode.
  bool Supports(int features, bool refresh = false, bool useGiven = false);

  // The decision of the current or given mode, or null when the mode does not hold it.
  std::shared_ptr<const CSuiteFeatureDecisions> SupportsFeature(int decision);
  std::shared_ptr<const CSuiteFeatureDecisions> SupportsFeatureInMode(int decision, int mode);

  // "true-false" 4, "yes-no" 5, "choice" 6, "selection" 7, "fraction" 8, "decimal" 9,
  // "short-answer" 10, "math" 30; anything else (case matters) 0.
  static int MapQuestionFormatToDecisionID(const char16_t* format);
  // Null or empty 2, "TallyoLE" 3, anything else 0.
  static int MapQuestionConfigurationToDecisionID(const char16_t* configuration);
  // Null or empty: the five modes of the default configuration (59); "TallyoLE": 4; else 0.
  static int MapQuestionConfigurationToSupportingFeatures(const char16_t* configuration);
  // The mask of every mode that holds the format's decision.
  int MapQuestionFormatToSupportingFeatures(const char16_t* format);
  // The modes that could pose the question: the format's modes, less mode 8 and 16 when they
  // cannot take a short answer's characters, less mode 1 and 8 when a selection has more options
  // than they allow, less mode 4 when a choice's options are out of its range. A "TallyoLE"
  // configuration gives 4 whatever the rest, a configuration of no mode 0.
  int MapQuestionToSupportingFeatures(const char16_t* format, const char16_t* configuration,
                                      int selectionCount, int choiceCount, const char16_t* answer);

  // The limits of the current or given mode. Each Support... member stores the limit and returns
  // true, or returns false (leaving the output alone) when the mode has no such limit.
  bool SupportsQuestionChoiceAnswerCount(int count, int mode = CurrentMode);
  bool SupportsQuestionSelectionAnswerCount(int count, int mode = CurrentMode);
  bool SupportSelectionNumbers(int& max, int mode = CurrentMode);
  bool SupportQuestionChoiceNumbers(int& max, int& min, int mode = CurrentMode);
  bool SupportTextQuestionLength(int& length, int mode = CurrentMode);
  bool SupportNumericQuestionLength(int& length, int mode = CurrentMode);
  bool SupportMaxQuestionsPerQuiz(int& count, int mode = CurrentMode);

  // True when `answer` (null: empty) holds no character outside the mode's text class; a mode
  // without a class takes no text.
  bool AnswerSupportsTexting(const char16_t* answer, int mode = CurrentMode);
  // AnswerSupportsTexting, in a mode that poses short answers, within its length limit.
  bool SupportsQuestionShortAnswer(const char16_t* answer, int mode = CurrentMode);

  // Whether the question can be posed in the current mode as it stands: its configuration
  // admits the mode, the mode holds its format, and its counts and answer fit the mode's limits.
  bool SupportsQuestion(const char16_t* format, const char16_t* configuration, int selectionCount,
                        int choiceCount, const char16_t* answer);
  // Whether it could be posed in the current mode once given the configuration that mode takes:
  // as SupportsQuestion without the configuration.
  bool SupportsQuestionConversion(const char16_t* format, int selectionCount, int choiceCount,
                                  const char16_t* answer);

  // Gives the "PE" edition the character class of `languageId` (a 16-bit language identifier):
  // French, the Cyrillic class for languages written in Cyrillic, else the basic class. Kept
  // across rebuilds of the matrix. Until called, and after a call with a negative identifier,
  // the language installed in the settings is used.
  void UpdatePELanguage(int languageId);
  // The class UpdatePELanguage chooses for `languageId`.
  static const char16_t* CharacterClassForLanguage(int languageId);

 private:
  SuiteFeatures();
  ~SuiteFeatures();

  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace Veskan

#endif

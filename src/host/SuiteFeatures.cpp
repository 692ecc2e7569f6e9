#include <unicode/regex.h>
#include <veskan/Logger.h>
#include <veskan/Preferences.h>
#include <veskan/SuiteFeatures.h>

#include <array>
#include <map>
#include <mutex>
#include <string>

namespace Veskan {

namespace {

// The classes of characters a text answer may use, in ICU set syntax. The escapes are ICU's,
// not the compiler's: an escaped hyphen stays a hyphen, where a bare one would make a range.
constexpr const char16_t* BasicClass = uR"(A-Za-z0-9 \n)";
constexpr const char16_t* FrenchClass =
    uR"(A-Za-z0-9 \n\u0027\u002D\u00C0\u00E0\u00C2\u00E2\u00C6-\u00CB\u00E6-\u00EB\u00CE\u00EEÏ\u00EF\u00D4\u00F4\u00D9\u00F9\u00DB\u00FB\u00DC\u00FC\u0152\u0153)";
constexpr const char16_t* CyrillicClass = uR"(A-Za-z0-9 \n\u0039\u0400-\u045F)";
constexpr const char16_t* ExtendedClass =
    uR"(\u0020-\u007E\u00A1\u00A3\u00AB\u00B0\u00B1\u00BB\u00BF-\u00CF\u00D1-\u00DC\u00DF-\u00EF\u00F1-\u00FC\u00FF\u0152\u0153\u0178\u03A6\u03A9\u03B1-\u03B4\u03B8\u03BB\u03BC\u03C0\u03C1\u03C3\u03C4\u03C6\u201A\u201E\u2026\u2039\u203A\u20AC\u2192\u21C6\u2205\u2206\u2208\u2209\u221E\u2220\u2225\u2245\u2248\u2260\u2264\u2265\u27C2\u000a)";
constexpr const char16_t* AnyCharacterClass = SuiteFeatures::AnyCharacter;

constexpr int ModeCount = 10;
constexpr const char* Source = "Veskan::SuiteFeatures";

enum class Kind { Bool, Int, Text };

struct Row {
  int mode;
  int decision;
  Kind kind;
  int number;
  const char16_t* text;
};

constexpr Row Table[] = {
#define SUITE_TEXT(mode, decision, text) \
  {SuiteFeatures::mode, SuiteFeatures::decision, Kind::Text, 0, text},
#define SUITE_BOOL(mode, decision, value) \
  {SuiteFeatures::mode, SuiteFeatures::decision, Kind::Bool, (value) ? 1 : 0, nullptr},
#define SUITE_INT(mode, decision, value) \
  {SuiteFeatures::mode, SuiteFeatures::decision, Kind::Int, value, nullptr},
#include "SuiteFeatureTable.inc"
#undef SUITE_TEXT
#undef SUITE_BOOL
#undef SUITE_INT
};

using Decision = std::shared_ptr<const CSuiteFeatureDecisions>;
using DecisionMap = std::map<int, Decision>;
using Matrix = std::array<DecisionMap, ModeCount>;

struct View {
  std::shared_ptr<const Matrix> matrix;
  int mode;
};

bool IsMode(int mode) {
  return mode == 0 ||
         (mode > 0 && mode <= SuiteFeatures::TallyoMixedVEText && (mode & (mode - 1)) == 0);
}

// The map of a single mode bit; null for 0, masks and anything else.
const DecisionMap* MapOf(const Matrix& matrix, int mode) {
  if (mode <= 0 || !IsMode(mode)) return nullptr;
  return &matrix[__builtin_ctz(static_cast<unsigned>(mode))];
}

Decision Find(const Matrix& matrix, int mode, int decision) {
  const DecisionMap* map = MapOf(matrix, mode);
  if (!map) return nullptr;
  const auto found = map->find(decision);
  return found == map->end() ? nullptr : found->second;
}

bool IntOf(const Matrix& matrix, int mode, int decision, int& value) {
  const auto found =
      std::dynamic_pointer_cast<const CSuiteIntDecision>(Find(matrix, mode, decision));
  if (found) value = found->GetValue();
  return found != nullptr;
}

const StringBuffer* TextOf(const Matrix& matrix, int mode, int decision) {
  const auto found =
      dynamic_cast<const CSuiteStringBufferDecision*>(Find(matrix, mode, decision).get());
  return found ? &found->GetValue() : nullptr;  // the matrix keeps the decision alive
}

Decision MakeDecision(const Row& row) {
  switch (row.kind) {
    case Kind::Bool:
      return std::make_shared<CSuiteBoolDecision>(row.decision, row.number != 0);
    case Kind::Int:
      return std::make_shared<CSuiteIntDecision>(row.decision, row.number);
    case Kind::Text:
      break;
  }
  return std::make_shared<CSuiteStringBufferDecision>(row.decision, StringBuffer(row.text));
}

void SetPEClass(Matrix& matrix, const char16_t* characterClass) {
  for (DecisionMap& map : matrix) {
    const auto code = map.find(SuiteFeatures::EditionCode);
    if (code == map.end()) continue;
    const auto* text = dynamic_cast<const CSuiteStringBufferDecision*>(code->second.get());
    if (text && text->GetValue() == StringBuffer(u"PE"))
      map[SuiteFeatures::TextCharacterClass] = std::make_shared<CSuiteStringBufferDecision>(
          SuiteFeatures::TextCharacterClass, StringBuffer(characterClass));
  }
}

// Counts characters, not UTF-16 units: a student sees characters.
int Length(const char16_t* text) {
  return text ? StringBuffer(text).countChar32() : 0;
}

bool Within(const Matrix& matrix, int mode, int minimumId, int maximumId, int count) {
  int minimum = 0;
  int maximum = 0;
  if (IntOf(matrix, mode, minimumId, minimum) && count < minimum) return false;
  return !IntOf(matrix, mode, maximumId, maximum) || count <= maximum;
}

}  // namespace

struct SuiteFeatures::State {
  std::mutex mutex;
  int currentMode = None;
  bool readFromSettings = true;
  int peLanguage = -1;  // until UpdatePELanguage: the installed language
  std::shared_ptr<const Matrix> matrix;
  // Compiled text tests by character class; ICU patterns may be shared between threads.
  std::mutex patternsMutex;
  std::map<std::u16string, std::shared_ptr<const icu::RegexPattern>> patterns;

  // Both under `mutex`.
  void Rebuild() {
    auto built = std::make_shared<Matrix>();
    for (const Row& row : Table)
      (*built)[__builtin_ctz(static_cast<unsigned>(row.mode))][row.decision] = MakeDecision(row);
    const int language = peLanguage >= 0
                             ? peLanguage
                             : Preferences::ReadIntegerValue(
                                   false, Preferences::Languages::FolivoLanguageKey,
                                   Preferences::Languages::LanguageId, Preferences::File, 0);
    SetPEClass(*built, CharacterClassForLanguage(language));
    matrix = std::move(built);
  }
  int ReadMode() {
    const int stored =
        Preferences::ReadIntegerValue(false, RegistryKey, RegistryValue, Preferences::File, None);
    readFromSettings = false;
    if (IsMode(stored)) return stored;
    Logger::Line(Logger::Severity::Warning, Source)
        << " the stored mode " << stored << " is not a mode; no mode is chosen";
    return None;
  }

  // The matrix and the mode `mode` stands for (CurrentMode: the current one), seen together.
  View See(int mode) {
    std::lock_guard<std::mutex> lock(mutex);
    if (mode == CurrentMode && readFromSettings) {
      currentMode = ReadMode();
      Rebuild();
    } else if (!matrix) {
      Rebuild();  // built on first use, once
    }
    return {matrix, mode == CurrentMode ? currentMode : mode};
  }

  std::shared_ptr<const icu::RegexPattern> OutsideClass(const StringBuffer& characterClass) {
    const std::u16string key(characterClass.getBuffer(), characterClass.length());
    std::lock_guard<std::mutex> lock(patternsMutex);
    auto& pattern = patterns[key];
    if (!pattern) {
      // Any character outside the class, anywhere: DOTALL, so that a line feed in the answer
      // cannot hide what follows it.
      const StringBuffer expression = StringBuffer(u".*[^") + characterClass + StringBuffer(u"].*");
      UParseError where;
      UErrorCode status = U_ZERO_ERROR;
      pattern.reset(icu::RegexPattern::compile(expression, UREGEX_DOTALL, where, status));
      if (U_FAILURE(status)) {
        pattern.reset();
        Logger::Line(Logger::Severity::Error, Source)
            << " a character class does not compile: " << u_errorName(status);
      }
    }
    return pattern;
  }

  bool TakesText(const Matrix& snapshot, int mode, const char16_t* answer) {
    const StringBuffer* characterClass = TextOf(snapshot, mode, TextCharacterClass);
    if (!characterClass) return false;
    if (*characterClass == StringBuffer(AnyCharacter)) return true;
    const auto pattern = OutsideClass(*characterClass);
    if (!pattern) return false;
    const StringBuffer input(answer ? answer : u"");
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> matcher(pattern->matcher(input, status));
    if (U_FAILURE(status) || !matcher) return false;
    const bool outside = matcher->matches(status);
    return U_SUCCESS(status) && !outside;
  }

  bool TakesShortAnswer(const Matrix& snapshot, int mode, const char16_t* answer) {
    int longest = 0;
    return Find(snapshot, mode, ShortAnswer) &&
           (!IntOf(snapshot, mode, MaximumTextLength, longest) || Length(answer) <= longest) &&
           TakesText(snapshot, mode, answer);
  }

  // The question fits the mode, whatever its configuration.
  bool Fits(const Matrix& snapshot, int mode, const char16_t* format, int selectionCount,
            int choiceCount, const char16_t* answer) {
    const int decision = MapQuestionFormatToDecisionID(format);
    if (decision == NoDecision || !Find(snapshot, mode, decision)) return false;
    int longest = 0;
    switch (decision) {
      case Choice:
        return Within(snapshot, mode, MinimumChoices, MaximumChoices, choiceCount);
      case Selection:
        return Within(snapshot, mode, MinimumSelections, MaximumSelections, selectionCount);
      case ShortAnswer:
        return TakesShortAnswer(snapshot, mode, answer);
      case Fraction:
      case Decimal:
        return !IntOf(snapshot, mode, MaximumNumericLength, longest) || Length(answer) <= longest;
      default:
        return true;
    }
  }

  static int FormatModes(const Matrix& snapshot, int decision) {
    int mask = None;
    for (int mode = 1; mode <= TallyoMixedVEText; mode <<= 1)
      if (decision != NoDecision && Find(snapshot, mode, decision)) mask |= mode;
    return mask;
  }

  int SupportingModes(const Matrix& snapshot, const char16_t* format, const char16_t* configuration,
                      int selectionCount, int choiceCount, const char16_t* answer) {
    const int decision = MapQuestionFormatToDecisionID(format);
    int mask = FormatModes(snapshot, decision);
    const int configured = MapQuestionConfigurationToSupportingFeatures(configuration);
    const auto result = [&] {
      return configured == TallyoLE ? TallyoLE : configured == 0 ? 0 : mask;
    };
    if (decision == ShortAnswer) {
      for (int mode : {TallyoPE, TallyoXE})
        if (!TakesText(snapshot, mode, answer)) mask &= ~mode;
    } else if (decision == Selection) {
      int most = 0;
      for (int mode : {Tallyo, TallyoPE})
        if (IntOf(snapshot, mode, MaximumSelections, most) && selectionCount > most) mask &= ~mode;
    } else if (decision == Choice) {
      if (Within(snapshot, TallyoLE, MinimumChoices, MaximumChoices, choiceCount)) return result();
      mask &= ~TallyoLE;
    }
    return result();
  }
};

SuiteFeatures& SuiteFeatures::GetInstance() {
  static SuiteFeatures instance;
  return instance;
}

SuiteFeatures::SuiteFeatures() : state_(std::make_unique<State>()) {}

SuiteFeatures::~SuiteFeatures() = default;

bool SuiteFeatures::SetMode(int mode) {
  if (!IsMode(mode)) return false;
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->readFromSettings = false;
  state_->currentMode = mode;
  state_->Rebuild();
  return true;
}

int SuiteFeatures::GetCurrentMode() {
  return state_->See(CurrentMode).mode;
}

void SuiteFeatures::ForceReadFromRegistry() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->readFromSettings = true;
}

bool SuiteFeatures::Supports(int features, bool refresh, bool useGiven) {
  if (refresh) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (useGiven && IsMode(features)) {
      state_->readFromSettings = false;
      state_->currentMode = features;
    } else if (!useGiven && state_->readFromSettings) {
      state_->currentMode = state_->ReadMode();
    }
    state_->Rebuild();
  }
  return (features & state_->See(CurrentMode).mode) == features;
}

std::shared_ptr<const CSuiteFeatureDecisions> SuiteFeatures::SupportsFeature(int decision) {
  return SupportsFeatureInMode(decision, CurrentMode);
}

std::shared_ptr<const CSuiteFeatureDecisions> SuiteFeatures::SupportsFeatureInMode(int decision,
                                                                                   int mode) {
  const View view = state_->See(mode);
  return Find(*view.matrix, view.mode, decision);
}

int SuiteFeatures::MapQuestionFormatToDecisionID(const char16_t* format) {
  static const std::pair<const char16_t*, int> formats[] = {
      {u"true-false", TrueFalse},     {u"yes-no", YesNo},
      {u"selection", Selection},      {u"choice", Choice},
      {u"fraction", Fraction},        {u"decimal", Decimal},
      {u"short-answer", ShortAnswer}, {u"math", Math}};
  if (!format) return NoDecision;
  const std::u16string_view text(format);
  for (const auto& [name, decision] : formats)
    if (text == name) return decision;
  return NoDecision;
}

int SuiteFeatures::MapQuestionConfigurationToDecisionID(const char16_t* configuration) {
  if (!configuration || !*configuration) return DefaultQuestionConfiguration;
  return std::u16string_view(configuration) == u"TallyoLE" ? TallyoLEQuestionConfiguration
                                                           : NoDecision;
}

int SuiteFeatures::MapQuestionConfigurationToSupportingFeatures(const char16_t* configuration) {
  switch (MapQuestionConfigurationToDecisionID(configuration)) {
    case DefaultQuestionConfiguration:
      return Tallyo | TallyoCE | TallyoPE | TallyoXE | TallyoVE;
    case TallyoLEQuestionConfiguration:
      return TallyoLE;
    default:
      return None;
  }
}

int SuiteFeatures::MapQuestionFormatToSupportingFeatures(const char16_t* format) {
  return State::FormatModes(*state_->See(None).matrix, MapQuestionFormatToDecisionID(format));
}

int SuiteFeatures::MapQuestionToSupportingFeatures(const char16_t* format,
                                                   const char16_t* configuration,
                                                   int selectionCount, int choiceCount,
                                                   const char16_t* answer) {
  const View view = state_->See(None);
  return state_->SupportingModes(*view.matrix, format, configuration, selectionCount, choiceCount,
                                 answer);
}

bool SuiteFeatures::SupportsQuestionChoiceAnswerCount(int count, int mode) {
  const View view = state_->See(mode);
  return Find(*view.matrix, view.mode, Choice) &&
         Within(*view.matrix, view.mode, MinimumChoices, MaximumChoices, count);
}

bool SuiteFeatures::SupportsQuestionSelectionAnswerCount(int count, int mode) {
  const View view = state_->See(mode);
  return Find(*view.matrix, view.mode, Selection) &&
         Within(*view.matrix, view.mode, MinimumSelections, MaximumSelections, count);
}

bool SuiteFeatures::SupportSelectionNumbers(int& max, int mode) {
  const View view = state_->See(mode);
  return IntOf(*view.matrix, view.mode, MaximumSelections, max);
}

bool SuiteFeatures::SupportQuestionChoiceNumbers(int& max, int& min, int mode) {
  const View view = state_->See(mode);
  int most = 0;
  int fewest = 0;
  if (!IntOf(*view.matrix, view.mode, MaximumChoices, most) ||
      !IntOf(*view.matrix, view.mode, MinimumChoices, fewest))
    return false;
  max = most;
  min = fewest;
  return true;
}

bool SuiteFeatures::SupportTextQuestionLength(int& length, int mode) {
  const View view = state_->See(mode);
  return IntOf(*view.matrix, view.mode, MaximumTextLength, length);
}

bool SuiteFeatures::SupportNumericQuestionLength(int& length, int mode) {
  const View view = state_->See(mode);
  return IntOf(*view.matrix, view.mode, MaximumNumericLength, length);
}

bool SuiteFeatures::SupportMaxQuestionsPerQuiz(int& count, int mode) {
  const View view = state_->See(mode);
  return IntOf(*view.matrix, view.mode, MaximumQuestionsPerQuiz, count);
}

bool SuiteFeatures::AnswerSupportsTexting(const char16_t* answer, int mode) {
  const View view = state_->See(mode);
  return state_->TakesText(*view.matrix, view.mode, answer);
}

bool SuiteFeatures::SupportsQuestionShortAnswer(const char16_t* answer, int mode) {
  const View view = state_->See(mode);
  return state_->TakesShortAnswer(*view.matrix, view.mode, answer);
}

bool SuiteFeatures::SupportsQuestion(const char16_t* format, const char16_t* configuration,
                                     int selectionCount, int choiceCount, const char16_t* answer) {
  const View view = state_->See(CurrentMode);
  return (state_->SupportingModes(*view.matrix, format, configuration, selectionCount, choiceCount,
                                  answer) &
          view.mode) != 0 &&
         state_->Fits(*view.matrix, view.mode, format, selectionCount, choiceCount, answer);
}

bool SuiteFeatures::SupportsQuestionConversion(const char16_t* format, int selectionCount,
                                               int choiceCount, const char16_t* answer) {
  const View view = state_->See(CurrentMode);
  return state_->Fits(*view.matrix, view.mode, format, selectionCount, choiceCount, answer);
}

void SuiteFeatures::UpdatePELanguage(int languageId) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->peLanguage = languageId < 0 ? -1 : languageId & 0xFFFF;
  state_->Rebuild();
}

const char16_t* SuiteFeatures::CharacterClassForLanguage(int languageId) {
  const int primary = languageId & 0x3FF;
  if (primary == 0x0C) return FrenchClass;
  // Languages written in Cyrillic by default, by primary language: Bulgarian, Russian,
  // Ukrainian, Belarusian, Tajik, Macedonian, Kazakh, Kyrgyz, Tatar, Bashkir, Yakut; Mongolian
  // in its Cyrillic sublanguage only.
  switch (primary) {
    case 0x02:
    case 0x19:
    case 0x22:
    case 0x23:
    case 0x28:
    case 0x2F:
    case 0x3F:
    case 0x40:
    case 0x44:
    case 0x6D:
    case 0x85:
      return CyrillicClass;
    default:
      break;
  }
  // Sublanguages written in Cyrillic: Mongolian (Mongolia), Serbian and Bosnian Cyrillic, Uzbek
  // and Azerbaijani Cyrillic.
  switch (languageId & 0xFFFF) {
    case 0x0450:
    case 0x0C1A:
    case 0x1C1A:
    case 0x201A:
    case 0x281A:
    case 0x301A:
    case 0x0843:
    case 0x082C:
      return CyrillicClass;
    default:
      return BasicClass;
  }
}

}  // namespace Veskan

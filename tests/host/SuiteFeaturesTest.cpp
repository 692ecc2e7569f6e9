// The question capability matrix: its table, the question rules, the text classes and the mode
// and language taken from the settings.
#include <veskan/Preferences.h>
#include <veskan/SuiteFeatures.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>
#include <thread>

#include "TestSupport.h"

namespace Veskan {
namespace {

using F = SuiteFeatures;

// The singleton starts each test in a known mode and the installed language, with a machine
// hive of the test's own.
class SuiteFeaturesTest : public ::testing::Test {
 protected:
  SuiteFeaturesTest() {
    setenv("VESKAN_MACHINE_REGISTRY", (folder_.Path() / "machine.db").c_str(), 1);
    features_.UpdatePELanguage(-1);
    features_.SetMode(F::None);
  }
  ~SuiteFeaturesTest() override { unsetenv("VESKAN_MACHINE_REGISTRY"); }

  int Int(int decision, int mode) {
    const auto value = std::dynamic_pointer_cast<const CSuiteIntDecision>(
        features_.SupportsFeatureInMode(decision, mode));
    return value ? value->GetValue() : -1;
  }

  Testing::TemporaryFolder folder_;
  SuiteFeatures& features_ = SuiteFeatures::GetInstance();
};

TEST_F(SuiteFeaturesTest, TheTableHoldsOneNamedModePerBitWithOrderedLimits) {
  std::set<std::u16string> names;
  int codes = 0;
  for (int mode = 1; mode <= F::TallyoMixedVEText; mode <<= 1) {
    const auto name = std::dynamic_pointer_cast<const CSuiteStringBufferDecision>(
        features_.SupportsFeatureInMode(F::ConfigurationName, mode));
    ASSERT_TRUE(name) << mode;
    names.emplace(name->GetValue().getBuffer(), name->GetValue().length());
    if (features_.SupportsFeatureInMode(F::EditionCode, mode)) ++codes;
    EXPECT_LE(Int(F::MinimumChoices, mode), Int(F::MaximumChoices, mode)) << mode;
    EXPECT_LE(Int(F::MinimumSelections, mode), Int(F::MaximumSelections, mode)) << mode;
    // A mode that takes short answers has a class that compiles and a length limit.
    if (features_.SupportsFeatureInMode(F::ShortAnswer, mode)) {
      EXPECT_TRUE(features_.AnswerSupportsTexting(u"Abc 12", mode)) << mode;
      EXPECT_GT(Int(F::MaximumTextLength, mode), 0) << mode;
    }
  }
  EXPECT_EQ(names,
            (std::set<std::u16string>{u"TallyoLE", u"TallyoCE", u"Tallyo", u"TallyoPE", u"TallyoXE",
                                      u"TallyoVE", u"TallyoMixed", u"TallyoMixedVE",
                                      u"TallyoMixedText", u"TallyoMixedVEText"}));
  EXPECT_EQ(codes, 3);
  const auto le = std::dynamic_pointer_cast<const CSuiteStringBufferDecision>(
      features_.SupportsFeatureInMode(F::ConfigurationName, 4));
  EXPECT_EQ(le->GetValue(), StringBuffer(u"TallyoLE"));
  // The configuration decisions agree with the configuration masks.
  int byDefault = 0;
  for (int mode = 1; mode <= F::TallyoMixedVEText; mode <<= 1)
    if (features_.SupportsFeatureInMode(F::DefaultQuestionConfiguration, mode)) byDefault |= mode;
  EXPECT_EQ(byDefault, F::MapQuestionConfigurationToSupportingFeatures(u""));
  EXPECT_TRUE(features_.SupportsFeatureInMode(F::TallyoLEQuestionConfiguration, F::TallyoLE));
  // Not a single mode: nothing.
  EXPECT_FALSE(features_.SupportsFeatureInMode(F::ConfigurationName, 3));
  EXPECT_FALSE(features_.SupportsFeatureInMode(F::ConfigurationName, 0));
}

TEST_F(SuiteFeaturesTest, ModesAndNamesMapExactly) {
  EXPECT_FALSE(features_.SetMode(3));
  EXPECT_FALSE(features_.SetMode(1024));
  EXPECT_FALSE(features_.SetMode(-4));
  EXPECT_EQ(features_.GetCurrentMode(), 0);
  EXPECT_TRUE(features_.SetMode(F::TallyoXE));
  EXPECT_TRUE(features_.Supports(F::TallyoXE));
  EXPECT_TRUE(features_.Supports(0));
  EXPECT_FALSE(features_.Supports(F::TallyoXE | F::Tallyo));
  EXPECT_FALSE(features_.SupportsFeature(F::TallyoLEQuestionConfiguration));
  // A refresh with the given features makes them the mode; an invalid set changes nothing.
  EXPECT_TRUE(features_.Supports(F::TallyoLE, true, true));
  EXPECT_FALSE(features_.Supports(F::TallyoLE | F::Tallyo, true, true));
  EXPECT_EQ(features_.GetCurrentMode(), F::TallyoLE);
  EXPECT_TRUE(features_.SetMode(0));
  EXPECT_EQ(features_.GetCurrentMode(), 0);

  const std::pair<const char16_t*, int> formats[] = {
      {u"true-false", 4},    {u"yes-no", 5},   {u"choice", 6},
      {u"selection", 7},     {u"fraction", 8}, {u"decimal", 9},
      {u"short-answer", 10}, {u"math", 30},    {u"True-False", 0},
      {u"choice ", 0},       {u"", 0},         {nullptr, 0}};
  for (const auto& [format, id] : formats)
    EXPECT_EQ(F::MapQuestionFormatToDecisionID(format), id);
  EXPECT_EQ(F::MapQuestionConfigurationToDecisionID(nullptr), 2);
  EXPECT_EQ(F::MapQuestionConfigurationToDecisionID(u"TallyoLE"), 3);
  EXPECT_EQ(F::MapQuestionConfigurationToDecisionID(u"tallyole"), 0);
  EXPECT_EQ(F::MapQuestionConfigurationToSupportingFeatures(u""), 59);
  EXPECT_EQ(F::MapQuestionConfigurationToSupportingFeatures(u"TallyoLE"), 4);
  EXPECT_EQ(F::MapQuestionConfigurationToSupportingFeatures(u"TallyoPE"), 0);
}

TEST_F(SuiteFeaturesTest, TextClassesAdmitOnlyTheirCharacters) {
  // Basic: letters, digits, space and line feed; a line feed hides nothing after it.
  EXPECT_TRUE(features_.AnswerSupportsTexting(u"Bonjour 123\nok", F::TallyoPE));
  EXPECT_TRUE(features_.AnswerSupportsTexting(nullptr, F::TallyoPE));
  EXPECT_FALSE(features_.AnswerSupportsTexting(u"caf\u00E9", F::TallyoPE));
  EXPECT_FALSE(features_.AnswerSupportsTexting(u"ok\n\u00E9", F::TallyoPE));
  EXPECT_FALSE(features_.AnswerSupportsTexting(u"a-b", F::TallyoPE));
  // French: accents, apostrophe and hyphen, but not the characters between them.
  features_.UpdatePELanguage(1036);
  EXPECT_TRUE(features_.AnswerSupportsTexting(u"l'\u00E9t\u00E9 - \u00CF\u0153", F::TallyoPE));
  EXPECT_FALSE(features_.AnswerSupportsTexting(u"@", F::TallyoPE));
  EXPECT_FALSE(features_.AnswerSupportsTexting(u"stra\u00DFe", F::TallyoPE));
  // Cyrillic, by language: Russian and Serbian Cyrillic, not Serbian Latin.
  features_.UpdatePELanguage(1049);
  EXPECT_TRUE(
      features_.AnswerSupportsTexting(u"\u041F\u0440\u0438\u0432\u0435\u0442 9", F::TallyoPE));
  EXPECT_FALSE(features_.AnswerSupportsTexting(u"\u00E9", F::TallyoPE));
  EXPECT_EQ(F::CharacterClassForLanguage(0x0C1A), F::CharacterClassForLanguage(1049));
  EXPECT_NE(F::CharacterClassForLanguage(0x081A), F::CharacterClassForLanguage(1049));
  // The language is kept when the matrix is rebuilt.
  features_.SetMode(F::TallyoPE);
  EXPECT_TRUE(features_.AnswerSupportsTexting(u"\u0416"));
  // Extended, mixed text (any character), and a mode that takes no text.
  EXPECT_TRUE(features_.AnswerSupportsTexting(u"\u20AC \u2264 \u03C0\n", F::TallyoXE));
  EXPECT_FALSE(features_.AnswerSupportsTexting(u"\u4E2D", F::TallyoXE));
  EXPECT_TRUE(features_.AnswerSupportsTexting(u"\u4E2D\U0001F600", F::TallyoMixedText));
  EXPECT_FALSE(features_.AnswerSupportsTexting(u"a", F::Tallyo));
  // A short answer also keeps to the length, counted in characters.
  const int longest = Int(F::MaximumTextLength, F::TallyoMixedText);
  std::u16string emoji;
  for (int i = 0; i < longest; ++i)
    emoji += u"\U0001F600";
  EXPECT_TRUE(features_.SupportsQuestionShortAnswer(emoji.c_str(), F::TallyoMixedText));
  EXPECT_FALSE(features_.SupportsQuestionShortAnswer((emoji + u"x").c_str(), F::TallyoMixedText));
  EXPECT_FALSE(features_.SupportsQuestionShortAnswer(u"a", F::Tallyo));
}

TEST_F(SuiteFeaturesTest, QuestionsMapToTheModesThatCanPoseThem) {
  const int shortAnswers = features_.MapQuestionFormatToSupportingFeatures(u"short-answer");
  EXPECT_EQ(shortAnswers & (F::TallyoPE | F::TallyoXE), F::TallyoPE | F::TallyoXE);
  // Characters: é leaves the basic class of mode 8, 中 both classes.
  EXPECT_EQ(features_.MapQuestionToSupportingFeatures(u"short-answer", u"", 0, 0, u"abc"),
            shortAnswers);
  EXPECT_EQ(features_.MapQuestionToSupportingFeatures(u"short-answer", u"", 0, 0, u"\u00E9"),
            shortAnswers & ~F::TallyoPE);
  EXPECT_EQ(features_.MapQuestionToSupportingFeatures(u"short-answer", u"", 0, 0, u"\u4E2D"),
            shortAnswers & ~(F::TallyoPE | F::TallyoXE));
  // Selections: only modes 1 and 8 are held to their maximum.
  const int selections = features_.MapQuestionFormatToSupportingFeatures(u"selection");
  const int most = Int(F::MaximumSelections, F::Tallyo);
  EXPECT_EQ(features_.MapQuestionToSupportingFeatures(u"selection", nullptr, most, 0, nullptr),
            selections);
  EXPECT_EQ(features_.MapQuestionToSupportingFeatures(u"selection", nullptr, most + 1, 0, nullptr),
            selections & ~(F::Tallyo | F::TallyoPE));
  // Choices: within mode 4's range the mask returns at once, outside it loses mode 4.
  const int choices = features_.MapQuestionFormatToSupportingFeatures(u"choice");
  EXPECT_TRUE(choices & F::TallyoLE);
  EXPECT_EQ(features_.MapQuestionToSupportingFeatures(u"choice", u"", 0, 5, nullptr), choices);
  EXPECT_EQ(features_.MapQuestionToSupportingFeatures(u"choice", u"", 0, 6, nullptr),
            choices & ~F::TallyoLE);
  // The configuration decides last: "TallyoLE" is 4 whatever the format, others none.
  EXPECT_EQ(features_.MapQuestionToSupportingFeatures(u"math", u"TallyoLE", 0, 0, nullptr), 4);
  EXPECT_EQ(features_.MapQuestionToSupportingFeatures(u"choice", u"Other", 0, 3, nullptr), 0);
  EXPECT_EQ(features_.MapQuestionToSupportingFeatures(u"poll", u"", 0, 0, nullptr), 0);

  // Posing in the current mode also holds the question to that mode's own limits.
  ASSERT_TRUE(features_.SetMode(F::TallyoLE));
  EXPECT_TRUE(features_.SupportsQuestion(u"choice", u"TallyoLE", 0, 5, nullptr));
  EXPECT_FALSE(features_.SupportsQuestion(u"choice", u"TallyoLE", 0, 6, nullptr));
  EXPECT_FALSE(features_.SupportsQuestion(u"math", u"TallyoLE", 0, 0, nullptr));
  EXPECT_FALSE(features_.SupportsQuestion(u"choice", u"Other", 0, 3, nullptr));
  EXPECT_TRUE(features_.SupportsQuestionConversion(u"yes-no", 0, 0, nullptr));
  EXPECT_FALSE(features_.SupportsQuestionConversion(u"selection", 3, 0, nullptr));
  EXPECT_TRUE(features_.SupportsQuestionChoiceAnswerCount(2));
  EXPECT_FALSE(features_.SupportsQuestionChoiceAnswerCount(1));
  EXPECT_FALSE(features_.SupportsQuestionSelectionAnswerCount(2));
  int max = 0, min = 0;
  EXPECT_TRUE(features_.SupportQuestionChoiceNumbers(max, min));
  EXPECT_EQ(std::make_pair(min, max), std::make_pair(2, 5));
  EXPECT_FALSE(features_.SupportTextQuestionLength(max));
  EXPECT_EQ(max, 5);  // left alone
  ASSERT_TRUE(features_.SetMode(F::TallyoPE));
  EXPECT_TRUE(features_.SupportsQuestion(u"decimal", nullptr, 0, 0, u"3.25"));
  EXPECT_FALSE(features_.SupportsQuestion(u"decimal", nullptr, 0, 0, u"3.14159265358979323"));
  EXPECT_FALSE(features_.SupportsQuestion(u"short-answer", u"", 0, 0, u"\u00E9"));
}

TEST_F(SuiteFeaturesTest, ModeAndLanguageComeFromTheSettings) {
  const char16_t* file = Preferences::File;
  ASSERT_TRUE(Preferences::WriteIntegerValue(false, F::RegistryKey, F::RegistryValue, file, 16));
  features_.ForceReadFromRegistry();
  EXPECT_EQ(features_.GetCurrentMode(), F::TallyoXE);
  // Read once: a later change waits for the next request.
  ASSERT_TRUE(Preferences::WriteIntegerValue(false, F::RegistryKey, F::RegistryValue, file, 6));
  EXPECT_EQ(features_.GetCurrentMode(), F::TallyoXE);
  features_.ForceReadFromRegistry();
  EXPECT_EQ(features_.GetCurrentMode(), 0);

  ASSERT_TRUE(Preferences::WriteIntegerValue(false, Preferences::Languages::FolivoLanguageKey,
                                             Preferences::Languages::LanguageId, file, 3084));
  ASSERT_TRUE(features_.SetMode(F::TallyoPE));
  EXPECT_TRUE(features_.AnswerSupportsTexting(u"\u00E0 bient\u00F4t"));
  features_.UpdatePELanguage(1033);
  EXPECT_FALSE(features_.AnswerSupportsTexting(u"\u00E0 bient\u00F4t"));
}

TEST_F(SuiteFeaturesTest, ReadersSeeWholeMatricesWhileTheModeChanges) {
  ASSERT_TRUE(features_.SetMode(F::TallyoPE));
  std::thread changer([this] {
    for (int i = 0; i < 300; ++i) {
      features_.SetMode(i % 2 ? F::TallyoPE : F::TallyoXE);
      features_.UpdatePELanguage(i % 3 ? 1036 : 1049);
    }
  });
  int answered = 0;
  for (int i = 0; i < 300; ++i) {
    // Both modes take plain letters whatever the moment.
    answered += features_.AnswerSupportsTexting(u"abc");
    answered += features_.SupportsFeature(F::ShortAnswer) != nullptr;
  }
  changer.join();
  EXPECT_EQ(answered, 600);
}

}  // namespace
}  // namespace Veskan

// Globals, RDF and Helpers::PlatformSpecificCleanup: counting, start-up, the guarded shutdown and
// starting again afterwards.
#include <veskan/Globals.h>
#include <veskan/Helpers.h>
#include <veskan/RDF.h>
#include <veskan/StringBuffer.h>
#include <veskan/XmlSchema.h>

#include "xml/GlobalsAccess.h"
#include "xml/xpath/XPathRuntime.h"

#include <xercesc/util/PlatformUtils.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Veskan {
namespace {

using Detail::GlobalsAccess;

// Reads the protected count of living RDF objects.
class RdfCount : public RDF {
 public:
  static std::int32_t Get() { return initcount.load(); }
};

bool XercesUp() {
  return xercesc::XMLPlatformUtils::fgMemoryManager != nullptr;
}

bool EverythingUp() {
  return GlobalsAccess::Mutex() && GlobalsAccess::Configuration() && GlobalsAccess::Engine() &&
         GlobalsAccess::ImplementationPointer() && GlobalsAccess::MemoryManager() &&
         GlobalsAccess::Rdf() && RDF::world && Detail::XPathPlatform::IsInitialized() && XercesUp();
}

bool EverythingDown() {
  return !GlobalsAccess::Mutex() && !GlobalsAccess::Configuration() && !GlobalsAccess::Engine() &&
         !GlobalsAccess::ImplementationPointer() && !GlobalsAccess::MemoryManager() &&
         !GlobalsAccess::Rdf() && !RDF::world && !Detail::XPathPlatform::IsInitialized() &&
         !XercesUp() && !Globals::Instance;
}

// A Globals in heap storage, as PlatformSpecificCleanup takes it.
Globals** NewSlot() {
  return new Globals*(new Globals);
}

// Brings the count to 0 through clean-up destructions, whatever it is: one new object plus one
// copy (which adds no count) per count already taken.
void ShutEverythingDown() {
  const std::int32_t living = GlobalsAccess::InitCount();
  if (living <= 0) return;
  std::vector<Globals**> slots{NewSlot()};
  for (std::int32_t i = 0; i < living; ++i)
    slots.push_back(new Globals*(new Globals(**slots.front())));
  for (Globals** slot : slots)
    Helpers::PlatformSpecificCleanup(slot, true);
}

class GlobalsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ShutEverythingDown();
    ASSERT_EQ(GlobalsAccess::InitCount(), 0);
    ASSERT_TRUE(EverythingDown());
  }
  void TearDown() override { ShutEverythingDown(); }
};

TEST_F(GlobalsTest, OnlyTheFirstObjectStartsTheLibraries) {
  Globals first;
  EXPECT_EQ(GlobalsAccess::InitCount(), 1);
  ASSERT_TRUE(EverythingUp());
  EXPECT_EQ(RdfCount::Get(), 1);
  xercesc::DOMImplementation* implementation = GlobalsAccess::Implementation();
  librdf_world* world = RDF::world;
  const auto engine = GlobalsAccess::Engine();
  {
    Globals second;
    EXPECT_EQ(GlobalsAccess::InitCount(), 2);
    EXPECT_EQ(GlobalsAccess::Implementation(), implementation);
    EXPECT_EQ(RDF::world, world);
    EXPECT_EQ(GlobalsAccess::Engine(), engine);
    EXPECT_EQ(RdfCount::Get(), 1);
  }
  EXPECT_EQ(GlobalsAccess::InitCount(), 1);
  EXPECT_TRUE(EverythingUp());
  EXPECT_EQ(Globals::Instance, nullptr);  // the library never publishes one
}

TEST_F(GlobalsTest, TheLastObjectDestroyedNormallyLeavesEverythingUp) {
  { Globals only; }
  EXPECT_EQ(GlobalsAccess::InitCount(), 1);
  ASSERT_TRUE(EverythingUp());
  xercesc::DOMImplementation* implementation = GlobalsAccess::Implementation();
  librdf_world* world = RDF::world;
  {
    Globals later;
    EXPECT_EQ(GlobalsAccess::InitCount(), 2);
    EXPECT_EQ(GlobalsAccess::Implementation(), implementation);
    EXPECT_EQ(RDF::world, world);
  }
  EXPECT_EQ(GlobalsAccess::InitCount(), 1);
}

TEST_F(GlobalsTest, CleanupOfTheLastObjectTearsDownAndALaterOneStartsAfresh) {
  Globals** slot = NewSlot();
  Globals::Instance = *slot;
  ASSERT_TRUE(EverythingUp());
  Helpers::PlatformSpecificCleanup(slot, true);
  EXPECT_EQ(GlobalsAccess::InitCount(), 0);
  EXPECT_TRUE(EverythingDown());
  EXPECT_EQ(RdfCount::Get(), 0);

  Globals again;
  EXPECT_EQ(GlobalsAccess::InitCount(), 1);
  EXPECT_TRUE(EverythingUp());
  // Xerces and ICU work again after their clean-up.
  EXPECT_EQ(XmlSchema::PrintDoc(XmlSchema::NewDoc(u"<quiz>\u00e9</quiz>")),
            u"<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" ?>\n"
            u"<quiz>\u00e9</quiz>\n");
}

TEST_F(GlobalsTest, CleanupOfAnObjectThatIsNotTheLastStopsAtTheCount) {
  Globals first;
  Globals** slot = NewSlot();
  Helpers::PlatformSpecificCleanup(slot, true);
  EXPECT_EQ(GlobalsAccess::InitCount(), 1);
  EXPECT_TRUE(EverythingUp());
}

TEST_F(GlobalsTest, CleanupWithTheFlagClearKeepsTheLibrariesUp) {
  Helpers::PlatformSpecificCleanup(NewSlot(), false);
  EXPECT_EQ(GlobalsAccess::InitCount(), 1);
  EXPECT_TRUE(EverythingUp());
  Helpers::PlatformSpecificCleanup(nullptr, true);  // nothing to destroy, nothing breaks
  EXPECT_TRUE(EverythingUp());
}

TEST_F(GlobalsTest, HeldCopiesAreTakenBeforeStartUp) {
  Globals first;
  EXPECT_FALSE(GlobalsAccess::HeldEngine(first));
  EXPECT_FALSE(GlobalsAccess::HeldConfiguration(first));
  EXPECT_FALSE(GlobalsAccess::Reserved(first));
  Globals second;
  EXPECT_EQ(GlobalsAccess::HeldEngine(second), GlobalsAccess::Engine());
  EXPECT_EQ(GlobalsAccess::HeldConfiguration(second), GlobalsAccess::Configuration());
  EXPECT_TRUE(GlobalsAccess::HeldEngine(second));
  EXPECT_FALSE(GlobalsAccess::Reserved(second));
}

TEST_F(GlobalsTest, CopyingAddsNoCountButDestroyingACopyTakesOne) {
  Globals first;
  Globals second;
  {
    Globals copy(second);
    EXPECT_EQ(GlobalsAccess::InitCount(), 2);
    EXPECT_EQ(GlobalsAccess::HeldEngine(copy), GlobalsAccess::HeldEngine(second));
  }
  EXPECT_EQ(GlobalsAccess::InitCount(), 1);
}

TEST_F(GlobalsTest, AnXmlOperationWithoutAHostObjectStartsTheLibraries) {
  EXPECT_EQ(XmlSchema::PrintDoc(XmlSchema::NewDoc(u"<a/>")),
            u"<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" ?>\n<a/>\n");
  EXPECT_EQ(GlobalsAccess::InitCount(), 1);
  EXPECT_TRUE(EverythingUp());
}

const char16_t QuizText[] =
    u"<quiz xmlns:xml=\"http://www.w3.org/XML/1998/namespace\">"
    u"<question xml:id=\"q1\">\u00e9t\u00e9</question></quiz>";

// The quiz printed once on this thread alone; everything is down again afterwards.
StringBuffer PrintedQuiz() {
  const StringBuffer printed = XmlSchema::PrintDoc(XmlSchema::NewDoc(QuizText), true);
  ShutEverythingDown();
  return printed;
}

// Parses, queries and prints the quiz as a worker thread would: true when everything came out
// right. The operations and the document hold the libraries for as long as they need them.
bool UseTheQuiz(const StringBuffer& expected) {
  const std::shared_ptr<XmlDocument> doc = XmlSchema::NewDoc(QuizText);
  xercesc::DOMElement* question = XmlSchema::FirstChildElement(XmlSchema::DocumentElement(doc));
  return question && XmlSchema::GetElementById(doc, u"q1") == question &&
         XmlSchema::GetTextContent(question) == u"\u00e9t\u00e9" &&
         XmlSchema::PrintDoc(doc, true) == expected;
}

// Runs `body(thread, round)` on `threads` threads for `rounds` rounds each, all at once.
template <typename Body>
void OnThreads(int threads, int rounds, const Body& body) {
  std::vector<std::thread> running;
  for (int thread = 0; thread < threads; ++thread) {
    running.emplace_back([&body, thread, rounds] {
      for (int round = 0; round < rounds; ++round)
        body(thread, round);
    });
  }
  for (std::thread& thread : running)
    thread.join();
}

// Every thread works inside a Globals of its own that it gives up through the clean-up, as a host
// does: whoever lets go while no other thread holds one tears everything down, and the next one
// starts it all afresh, while the others parse and print.
TEST_F(GlobalsTest, ThreadsStartingAndStoppingTheLibrariesWhileOthersUseThem) {
  const StringBuffer expected = PrintedQuiz();
  ASSERT_NE(expected.indexOf(u"<question xml:id=\"q1\">\u00e9t\u00e9</question>"), -1);
  ASSERT_TRUE(EverythingDown());
  std::atomic<int> wrong{0};
  std::atomic<int> teardowns{0};
  OnThreads(4, 150, [&](int, int) {
    Globals** host = NewSlot();
    if (!GlobalsAccess::Implementation() || !GlobalsAccess::Engine() || !RDF::world) ++wrong;
    if (!UseTheQuiz(expected)) ++wrong;
    Helpers::PlatformSpecificCleanup(host, true);
    if (GlobalsAccess::InitCount() == 0) ++teardowns;
  });
  EXPECT_EQ(wrong.load(), 0);
  RecordProperty("teardowns", teardowns.load());
  // The last thread to let go tore everything down.
  EXPECT_EQ(GlobalsAccess::InitCount(), 0);
  EXPECT_TRUE(EverythingDown());
}

// Workers seal content with no Globals of their own from a process where nothing is up yet,
// while host threads hold Globals around their work or let one go through the clean-up.
TEST_F(GlobalsTest, WorkersWithoutAGlobalsBesideHostsStartingAndStopping) {
  const StringBuffer expected = PrintedQuiz();
  ASSERT_TRUE(EverythingDown());
  std::atomic<int> wrong{0};
  OnThreads(4, 150, [&](int thread, int round) {
    switch ((thread + round) % 4) {
      case 0:
        Helpers::PlatformSpecificCleanup(NewSlot(), true);
        break;
      case 1: {
        Globals host;
        if (!GlobalsAccess::Implementation() || !RDF::world) ++wrong;
        if (!UseTheQuiz(expected)) ++wrong;
        break;
      }
      default:
        if (!UseTheQuiz(expected)) ++wrong;
        break;
    }
  });
  EXPECT_EQ(wrong.load(), 0);
  // A Globals that went last outside the clean-up left everything up at the count of 1; a
  // clean-up that went last took everything down.
  const std::int32_t count = GlobalsAccess::InitCount();
  EXPECT_TRUE((count == 1 && EverythingUp()) || (count == 0 && EverythingDown())) << count;
}

TEST_F(GlobalsTest, EachShutdownStepReleasesWhatItsLineNames) {
  struct Expected {
    std::string line;
    bool (*released)();
  };
  const std::vector<Expected> expected{
      {"C++ exception occured shutting down librdf. Not all the memory used by it may have been "
       "freed.",
       [] { return !GlobalsAccess::Rdf() && !RDF::world; }},
      {"C++ exception occured shutting down xerces_2_8::DOMImplementation. Not all the memory "
       "used by it may have been freed.",
       [] { return !GlobalsAccess::ImplementationPointer(); }},
      {"C++ exception occured shutting down XQillaXPath2MemoryManager. Not all the memory used by "
       "it may have been freed.",
       [] { return !GlobalsAccess::MemoryManager(); }},
      {"C++ exception occured shutting down XQilla. Not all the memory used by it may have been "
       "freed.",
       [] { return !GlobalsAccess::Engine(); }},
      {"C++ exception occured shutting down XQillaXercesConfiguration. Not all the memory used by "
       "it may have been freed.",
       [] { return !GlobalsAccess::Configuration(); }},
      {"C++ exception occured in XQillaPlatformUtils::terminate(). Not all the memory used by "
       "XPath and XQuery features in the Veskan dynamic library may have been freed.",
       [] { return !Detail::XPathPlatform::IsInitialized(); }},
      {"C++ exception occured in xerces_c_2_8::XMLPlatformUtils::Terminate(). Not all the memory "
       "used by XML features in the Veskan dynamic library may have been freed.",
       [] { return !XercesUp(); }},
  };
  const std::vector<Detail::ShutdownStep>& steps = GlobalsAccess::ShutdownSteps();
  ASSERT_EQ(steps.size(), expected.size());

  Globals** slot = NewSlot();
  // Run every step but Xerces' own by hand, in order, and watch each release exactly its object.
  for (std::size_t index = 0; index + 1 < steps.size(); ++index) {
    SCOPED_TRACE(expected[index].line);
    EXPECT_EQ(steps[index].failureLine, expected[index].line);
    EXPECT_FALSE(expected[index].released());
    steps[index].release();
    EXPECT_TRUE(expected[index].released());
    if (index + 2 < steps.size()) {
      EXPECT_FALSE(expected[index + 1].released());
    }
  }
  EXPECT_EQ(steps.back().failureLine, expected.back().line);
  EXPECT_TRUE(XercesUp());
  // The real shutdown runs them all again (harmless on what is gone) and then Xerces' own.
  Helpers::PlatformSpecificCleanup(slot, true);
  EXPECT_TRUE(EverythingDown());
}

int stepsRun = 0;

TEST(ShutdownStepsTest, AFailingStepWritesExactlyItsLineAndTheNextStepsStillRun) {
  stepsRun = 0;
  const std::vector<Detail::ShutdownStep> steps{
      {"first", [] { ++stepsRun; }}, {"second failed", [] { throw 42; }},
      {"third", [] { ++stepsRun; }}, {"fourth failed", [] { throw std::runtime_error("x"); }},
      {"fifth", [] { ++stepsRun; }},
  };
  ::testing::internal::CaptureStderr();
  Detail::RunShutdownSteps(steps);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "second failed\nfourth failed\n");
  EXPECT_EQ(stepsRun, 3);
}

TEST(RdfTest, TheFirstObjectCreatesTheWorldAndTheLastFreesIt) {
  ShutEverythingDown();
  ASSERT_EQ(RdfCount::Get(), 0);
  ASSERT_EQ(RDF::world, nullptr);
  {
    RDF first;
    ASSERT_NE(RDF::world, nullptr);
    librdf_world* world = RDF::world;
    {
      RDF second;
      EXPECT_EQ(RdfCount::Get(), 2);
      EXPECT_EQ(RDF::world, world);
    }
    EXPECT_EQ(RDF::world, world);
  }
  EXPECT_EQ(RdfCount::Get(), 0);
  EXPECT_EQ(RDF::world, nullptr);
}

TEST(RdfTest, ThreadsCreatingAndFreeingTheWorldAtOnceFindItWhole) {
  ShutEverythingDown();
  ASSERT_EQ(RdfCount::Get(), 0);
  std::atomic<int> missing{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&missing] {
      for (int round = 0; round < 300; ++round) {
        RDF rdf;
        if (!RDF::world) ++missing;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(missing.load(), 0);
  EXPECT_EQ(RdfCount::Get(), 0);
  EXPECT_EQ(RDF::world, nullptr);
}

TEST(RdfTest, CopiesCountNothingYetTheirDestructionCountsDown) {
  ShutEverythingDown();
  {
    RDF original;
    {
      RDF copy(original);
      EXPECT_EQ(RdfCount::Get(), 1);
    }
    EXPECT_EQ(RdfCount::Get(), 0);
    EXPECT_EQ(RDF::world, nullptr);  // freed under the original's feet: never copy
  }
  EXPECT_EQ(RdfCount::Get(), -1);
  // Balance the count with an object that is never destroyed, so librdf can start again.
  alignas(RDF) static unsigned char balance[sizeof(RDF)];
  new (balance) RDF;
  EXPECT_EQ(RdfCount::Get(), 0);
  EXPECT_EQ(RDF::world, nullptr);
}

}  // namespace
}  // namespace Veskan

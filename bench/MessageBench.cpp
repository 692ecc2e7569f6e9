// The message model's hot paths: joining ten 64 KiB parts into one multipart payload, and one
// ready-state announcement delivered to one listener.
#include <veskan/Body.h>
#include <veskan/Message.h>

#include <benchmark/benchmark.h>

#include <string>

namespace {

using namespace Veskan;

constexpr int PartCount = 10;
constexpr int PartBytes = 64 * 1024;

std::string PartText() {
  static const std::string Sentence = "Question 7: Which planet is the largest? Answer: Jupiter. ";
  std::string text;
  while (text.size() < PartBytes)
    text += Sentence;
  text.resize(PartBytes);
  return text;
}

// Fresh parts each round, since sealing happens once per content: the measured call seals them.
void BM_FormatMultipartMessage(benchmark::State& state) {
  const std::string text = PartText();
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  for (auto _ : state) {
    state.PauseTiming();
    Body body;
    for (int i = 0; i < PartCount; ++i) {
      auto part = std::make_shared<Part>();
      part->Content = std::make_shared<Content>(bytes, PartBytes);
      part->Headers[Header::ContentType] = u"text/plain";
      body.Parts.Add(part);
    }
    state.ResumeTiming();
    body.FormatMultipartMessage();
    benchmark::DoNotOptimize(body.Content->Data());
  }
  state.SetBytesProcessed(state.iterations() * PartCount * PartBytes);
}
BENCHMARK(BM_FormatMultipartMessage)->Unit(benchmark::kMicrosecond);

// The same with parts already sealed by an earlier call: only the payload is rebuilt.
void BM_FormatMultipartMessageResealed(benchmark::State& state) {
  const std::string text = PartText();
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  Body body;
  for (int i = 0; i < PartCount; ++i) {
    auto part = std::make_shared<Part>();
    part->Content = std::make_shared<Content>(bytes, PartBytes);
    body.Parts.Add(part);
  }
  for (auto _ : state) {
    body.FormatMultipartMessage();
    benchmark::DoNotOptimize(body.Content->Data());
  }
  state.SetBytesProcessed(state.iterations() * PartCount * PartBytes);
}
BENCHMARK(BM_FormatMultipartMessageResealed)->Unit(benchmark::kMicrosecond);

// One announcement, uncontended, with one listener that counts.
void BM_AnnounceReadyState(benchmark::State& state) {
  const auto message = Message::New();
  long deliveries = 0;
  message->ReadyStateChanged.connect(
      [&deliveries](const std::shared_ptr<Message>&) { ++deliveries; });
  for (auto _ : state) {
    std::unique_lock<std::recursive_mutex> lock = message->Lock();
    Message::UnlockAndNotifyReadyStateChanged(nullptr, message, ReadyStates::Sent, lock);
  }
  benchmark::DoNotOptimize(deliveries);
  if (deliveries != static_cast<long>(state.iterations())) state.SkipWithError("lost deliveries");
}
BENCHMARK(BM_AnnounceReadyState);

}  // namespace

BENCHMARK_MAIN();

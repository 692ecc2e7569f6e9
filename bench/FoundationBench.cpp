// The foundation's conversions and encodings, each beside the raw ICU, Crypto++ or C library
// call it wraps, on 1 KiB and 1 MiB inputs. bench/ratios.py turns a run into wrapper/raw ratios.
#include <veskan/ByteBuffer.h>
#include <veskan/StringBuffer.h>

#include <benchmark/benchmark.h>

#define CRYPTOPP_ENABLE_NAMESPACE_WEAK 1
#include <crypto++/base64.h>
#include <crypto++/filters.h>
#include <crypto++/md5.h>

#include <unicode/ustring.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

using Veskan::ByteBuffer;
using Veskan::StringBuffer;

// Quiz text as the system stores it: mostly ASCII with some accented letters, `bytes` long.
std::string QuizText(std::size_t bytes) {
  static const std::string Sentence =
      "Quelle est la capitale de la France ? R\xC3\xA9ponse : Paris. Welche Farbe hat der "
      "Himmel? Blau. What is 6 x 7? 42. ";
  std::string text;
  while (text.size() < bytes)
    text += Sentence;
  text.resize(bytes);
  while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80)
    text.pop_back();
  if (!text.empty() && static_cast<unsigned char>(text.back()) >= 0xC0) text.pop_back();
  return text;
}

std::string RandomBytes(std::size_t bytes) {
  std::mt19937 random(42);
  std::string data(bytes, '\0');
  for (char& byte : data)
    byte = static_cast<char>(random());
  return data;
}

ByteBuffer ToBuffer(const std::string& data) {
  return ByteBuffer(reinterpret_cast<const unsigned char*>(data.data()), 0,
                    static_cast<int>(data.size()));
}

void SetBytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

// UTF-8 to UTF-16.
void Utf8To16_Veskan(benchmark::State& state) {
  const std::string text = QuizText(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    StringBuffer converted = Veskan::UTF8to16(text.data(), 0, static_cast<int>(text.size()));
    benchmark::DoNotOptimize(converted);
  }
  SetBytes(state, text.size());
}

void Utf8To16_IcuRaw(benchmark::State& state) {
  const std::string text = QuizText(static_cast<std::size_t>(state.range(0)));
  std::vector<char16_t> target(text.size() + 1);
  for (auto _ : state) {
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(target.data(), static_cast<int32_t>(target.size()), &written, text.data(),
                  static_cast<int32_t>(text.size()), &status);
    benchmark::DoNotOptimize(written);
    benchmark::ClobberMemory();
  }
  SetBytes(state, text.size());
}

// UTF-16 to UTF-8.
void Utf16To8_Veskan(benchmark::State& state) {
  const StringBuffer text(QuizText(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    ByteBuffer converted = Veskan::UTF16to8(text);
    benchmark::DoNotOptimize(converted);
  }
  SetBytes(state, static_cast<std::size_t>(text.length()) * 2);
}

void Utf16To8_IcuRaw(benchmark::State& state) {
  const StringBuffer text(QuizText(static_cast<std::size_t>(state.range(0))));
  std::vector<char> target(static_cast<std::size_t>(text.length()) * 3 + 1);
  for (auto _ : state) {
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8(target.data(), static_cast<int32_t>(target.size()), &written, text.getBuffer(),
                text.length(), &status);
    benchmark::DoNotOptimize(written);
    benchmark::ClobberMemory();
  }
  SetBytes(state, static_cast<std::size_t>(text.length()) * 2);
}

// SafeForXml of text with nothing to escape (the common case: the result is a copy), beside an
// ICU copy of the same text: from a pointer (both measure the length first) and from a
// StringBuffer.
StringBuffer CleanQuizText(std::size_t bytes) {
  std::string ascii = QuizText(bytes);
  for (char& c : ascii)
    c = (c & 0x80) ? 'e' : c;  // printable ASCII only
  return StringBuffer(ascii);
}

void SafeForXml_Veskan(benchmark::State& state) {
  const StringBuffer text = CleanQuizText(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    StringBuffer escaped = Veskan::SafeForXml(text.c_str());
    benchmark::DoNotOptimize(escaped);
  }
  SetBytes(state, static_cast<std::size_t>(text.length()) * 2);
}

void SafeForXml_IcuCopyRaw(benchmark::State& state) {
  const StringBuffer text = CleanQuizText(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    icu::UnicodeString copy(text.c_str());
    benchmark::DoNotOptimize(copy);
  }
  SetBytes(state, static_cast<std::size_t>(text.length()) * 2);
}

void SafeForXmlOfStringBuffer_Veskan(benchmark::State& state) {
  const StringBuffer text = CleanQuizText(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    StringBuffer escaped = Veskan::SafeForXml(text);
    benchmark::DoNotOptimize(escaped);
  }
  SetBytes(state, static_cast<std::size_t>(text.length()) * 2);
}

void SafeForXmlOfStringBuffer_IcuCopyRaw(benchmark::State& state) {
  const StringBuffer text = CleanQuizText(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    icu::UnicodeString copy(text.getBuffer(), text.length());
    benchmark::DoNotOptimize(copy);
  }
  SetBytes(state, static_cast<std::size_t>(text.length()) * 2);
}

// SafeForXml of quiz text where accents and markup need escaping (no raw counterpart: it shows
// the cost of real escaping).
void SafeForXmlEscaping_Veskan(benchmark::State& state) {
  const StringBuffer text(QuizText(static_cast<std::size_t>(state.range(0))) + "<&>");
  for (auto _ : state) {
    StringBuffer escaped = Veskan::SafeForXml(text.c_str());
    benchmark::DoNotOptimize(escaped);
  }
  SetBytes(state, static_cast<std::size_t>(text.length()) * 2);
}

// Base64.
void Encode64_Veskan(benchmark::State& state) {
  const ByteBuffer bytes = ToBuffer(RandomBytes(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    StringBuffer encoded = Veskan::Encode64(bytes);
    benchmark::DoNotOptimize(encoded);
  }
  SetBytes(state, static_cast<std::size_t>(bytes.Size()));
}

void Encode64_CryptoppRaw(benchmark::State& state) {
  const std::string bytes = RandomBytes(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    std::string encoded;
    CryptoPP::StringSource(bytes, true,
                           new CryptoPP::Base64Encoder(new CryptoPP::StringSink(encoded), false));
    benchmark::DoNotOptimize(encoded);
  }
  SetBytes(state, bytes.size());
}

void Decode64_Veskan(benchmark::State& state) {
  const StringBuffer text =
      Veskan::Encode64(ToBuffer(RandomBytes(static_cast<std::size_t>(state.range(0)))));
  for (auto _ : state) {
    ByteBuffer decoded = Veskan::Decode64(text.c_str());
    benchmark::DoNotOptimize(decoded);
  }
  SetBytes(state, static_cast<std::size_t>(state.range(0)));
}

void Decode64_CryptoppRaw(benchmark::State& state) {
  std::string text;
  CryptoPP::StringSource(RandomBytes(static_cast<std::size_t>(state.range(0))), true,
                         new CryptoPP::Base64Encoder(new CryptoPP::StringSink(text), false));
  for (auto _ : state) {
    std::string decoded;
    CryptoPP::StringSource(text, true,
                           new CryptoPP::Base64Decoder(new CryptoPP::StringSink(decoded)));
    benchmark::DoNotOptimize(decoded);
  }
  SetBytes(state, static_cast<std::size_t>(state.range(0)));
}

// MD5.
void MD5_Veskan(benchmark::State& state) {
  const ByteBuffer bytes = ToBuffer(RandomBytes(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    StringBuffer digest = Veskan::MD5(bytes);
    benchmark::DoNotOptimize(digest);
  }
  SetBytes(state, static_cast<std::size_t>(bytes.Size()));
}

void MD5_CryptoppRaw(benchmark::State& state) {
  const std::string bytes = RandomBytes(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    CryptoPP::byte digest[CryptoPP::Weak::MD5::DIGESTSIZE];
    CryptoPP::Weak::MD5().CalculateDigest(
        digest, reinterpret_cast<const CryptoPP::byte*>(bytes.data()), bytes.size());
    benchmark::DoNotOptimize(digest);
  }
  SetBytes(state, bytes.size());
}

// FormatDouble over an array of doubles of 1 KiB or 1 MiB, beside printf's "%lf" (the first of
// the prints the formatting rules call for).
std::vector<double> Doubles(std::size_t bytes) {
  std::mt19937_64 random(3);
  std::uniform_real_distribution<double> value(-1000.0, 1000.0);
  std::vector<double> values(bytes / sizeof(double));
  for (std::size_t i = 0; i < values.size(); ++i) {
    values[i] = i % 2 ? value(random) : static_cast<double>(static_cast<int>(value(random))) / 4;
  }
  return values;
}

void FormatDouble_Veskan(benchmark::State& state) {
  const std::vector<double> values = Doubles(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    for (double value : values) {
      StringBuffer text = Veskan::FormatDouble(value);
      benchmark::DoNotOptimize(text);
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * values.size()));
}

void FormatDouble_PrintfRaw(benchmark::State& state) {
  const std::vector<double> values = Doubles(static_cast<std::size_t>(state.range(0)));
  char text[64];
  for (auto _ : state) {
    for (double value : values) {
      benchmark::DoNotOptimize(std::snprintf(text, sizeof text, "%lf", value));
      benchmark::ClobberMemory();
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * values.size()));
}

#define VESKAN_BENCH_SIZES(function) BENCHMARK(function)->Arg(1 << 10)->Arg(1 << 20)

VESKAN_BENCH_SIZES(Utf8To16_Veskan);
VESKAN_BENCH_SIZES(Utf8To16_IcuRaw);
VESKAN_BENCH_SIZES(Utf16To8_Veskan);
VESKAN_BENCH_SIZES(Utf16To8_IcuRaw);
VESKAN_BENCH_SIZES(SafeForXml_Veskan);
VESKAN_BENCH_SIZES(SafeForXml_IcuCopyRaw);
VESKAN_BENCH_SIZES(SafeForXmlOfStringBuffer_Veskan);
VESKAN_BENCH_SIZES(SafeForXmlOfStringBuffer_IcuCopyRaw);
VESKAN_BENCH_SIZES(SafeForXmlEscaping_Veskan);
VESKAN_BENCH_SIZES(Encode64_Veskan);
VESKAN_BENCH_SIZES(Encode64_CryptoppRaw);
VESKAN_BENCH_SIZES(Decode64_Veskan);
VESKAN_BENCH_SIZES(Decode64_CryptoppRaw);
VESKAN_BENCH_SIZES(MD5_Veskan);
VESKAN_BENCH_SIZES(MD5_CryptoppRaw);
VESKAN_BENCH_SIZES(FormatDouble_Veskan);
VESKAN_BENCH_SIZES(FormatDouble_PrintfRaw);

}  // namespace

BENCHMARK_MAIN();

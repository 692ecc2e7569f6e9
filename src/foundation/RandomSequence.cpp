// RandomSequence: a generator that depends on nothing but its seed text.
#include <veskan/Statistics.h>

#include <utility>

namespace Veskan {

namespace {

std::uint32_t Hash(const char16_t* text) {
  std::uint32_t hash = 0;
  for (; text && *text; ++text)
    hash = hash * 31u + *text;
  return hash;
}

}  // namespace

RandomSequence::RandomSequence(const char16_t* seedText) : seed_(Hash(seedText)), state_(seed_) {}

std::int32_t RandomSequence::GenerateHashCode(const char16_t* text) {
  return static_cast<std::int32_t>(Hash(text));
}

void RandomSequence::Advance() {
  // The first step from a fresh sequence adds nothing: the state still equals the seed.
  state_ = state_ * 65539u + (state_ == seed_ ? 0u : seed_);
}

double RandomSequence::NextDouble() {
  Advance();
  return (state_ % 2147483647u) / 2147483647.0;
}

int RandomSequence::NextInteger(int bound) {
  if (bound < 2) return 0;
  Advance();
  return static_cast<int>(state_ % static_cast<std::uint32_t>(bound) & 0x7FFFFFFFu);
}

std::vector<int> RandomSequence::GetRandomSequence(int count) {
  std::vector<int> order;
  if (count < 1) return order;
  order.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i)
    order.push_back(i);
  for (int i = count - 1; i > 0; --i)
    std::swap(order[static_cast<std::size_t>(i)],
              order[static_cast<std::size_t>(NextInteger(i + 1))]);
  return order;
}

}  // namespace Veskan

// A connection's output queue: what is copied, what is only referenced, and positions.
#include "net/OutputQueue.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace Veskan {
namespace {

std::string Text(const Sys::ByteSpan& span) {
  return std::string(span.data, span.length);
}

TEST(OutputQueueTest, CopiesSmallPiecesReferencesLargeOnesAndCountsPositions) {
  Detail::OutputQueue queue;
  queue.Append("HTTP/1.1 ", 9);
  queue.Append(std::vector<char>{'2', '0', '0'});
  auto body = std::make_shared<std::string>(100000, 'b');
  queue.Append(std::shared_ptr<const void>(body, body->data()), body->data(), body->size());
  queue.Append("tail", 4);
  EXPECT_EQ(100016u, queue.Unsent());
  EXPECT_EQ(100016u, queue.End());

  Sys::ByteSpan spans[8];
  ASSERT_EQ(3u, queue.Front(spans, 8));
  EXPECT_EQ("HTTP/1.1 200", Text(spans[0])) << "small pieces are gathered";
  EXPECT_EQ(body->data(), spans[1].data) << "a large body is sent from where it is";
  EXPECT_EQ("tail", Text(spans[2]));

  queue.Consume(5);
  ASSERT_EQ(1u, queue.Front(spans, 1));
  EXPECT_EQ("1.1 200", Text(spans[0]));
  EXPECT_EQ(5u, queue.Consumed());
  queue.Consume(7 + 100000 + 1);
  ASSERT_EQ(1u, queue.Front(spans, 1));
  EXPECT_EQ("ail", Text(spans[0]));
  EXPECT_EQ(1, body.use_count()) << "the body is let go once it has left";

  queue.Consume(1000);  // more than there is
  EXPECT_TRUE(queue.Empty());
  EXPECT_EQ(0u, queue.Front(spans, 8));
  queue.Append("next", 4);  // into the room of a spent block, none of whose bytes remain
  ASSERT_EQ(1u, queue.Front(spans, 8));
  EXPECT_EQ("next", Text(spans[0]));
  queue.Clear();
  EXPECT_TRUE(queue.Empty());
  EXPECT_EQ(100020u, queue.End()) << "positions go on across Clear";
}

}  // namespace
}  // namespace Veskan

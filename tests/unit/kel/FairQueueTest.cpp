#include "session/FairQueue.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace kel {
namespace {

struct Piece {
  std::size_t bytes = 1;
  bool droppable = true;
  std::string name;
};
struct Owner {
  Lane<Piece> lane;
};
using Queue = FairQueue<Piece, Owner>;

struct FairQueueTest : ::testing::Test {
  void push(const std::shared_ptr<Owner>& owner, const std::string& name, std::size_t bytes = 1,
            bool droppable = true) {
    queue.push(owner, {bytes, droppable, name}, [&](const Piece& piece) { dropped.push_back(piece.name); });
  }
  std::vector<std::string> rest() {
    std::vector<std::string> names;
    while (auto next = queue.pop()) names.push_back(next->second.name);
    return names;
  }
  Queue queue{4, 100};
  std::vector<std::string> dropped;
  std::shared_ptr<Owner> a = std::make_shared<Owner>();
  std::shared_ptr<Owner> b = std::make_shared<Owner>();
};

TEST_F(FairQueueTest, ServesLanesInTurnAndKeepsTheirOrder) {
  push(a, "a1");
  push(a, "a2");
  push(b, "b1");
  push(b, "b2");
  EXPECT_EQ(rest(), (std::vector<std::string>{"a1", "b1", "a2", "b2"}));
  EXPECT_EQ(queue.items(), 0U);
  EXPECT_EQ(queue.bytes(), 0U);
}

TEST_F(FairQueueTest, DropsTheOldestOfTheLaneThatGrows) {
  push(b, "b1");
  for (const char* name : {"a1", "a2", "a3", "a4", "a5", "a6"}) push(a, name);
  EXPECT_EQ(dropped, (std::vector<std::string>{"a1"}));
  EXPECT_EQ(rest(), (std::vector<std::string>{"b1", "a2", "a3", "a4", "a5", "a6"}));
}

TEST_F(FairQueueTest, KeepsTheNewestOfEachLaneWhateverTheBound) {
  std::vector<std::shared_ptr<Owner>> many;
  for (int i = 0; i < 20; ++i) {
    many.push_back(std::make_shared<Owner>());
    push(many.back(), "n" + std::to_string(i), 200);
  }
  EXPECT_EQ(dropped, std::vector<std::string>{});
  EXPECT_EQ(queue.items(), 20U);
  push(many.front(), "m", 200);
  EXPECT_EQ(dropped, std::vector<std::string>{"n0"}) << "200 bytes are more than there may be besides";
  rest();
}

TEST_F(FairQueueTest, TakesFromTheLaneThatFillsTheQueue) {
  for (const char* name : {"b1", "b2", "b3", "b4"}) push(b, name);
  push(a, "a1");
  push(a, "a2");
  EXPECT_EQ(dropped, std::vector<std::string>{});
  push(a, "a3");
  EXPECT_EQ(dropped, std::vector<std::string>{"b1"}) << "who has the most gives";
  push(a, "a4");
  EXPECT_EQ(dropped.size(), 2U);
  EXPECT_EQ(rest().size(), 6U);
}

TEST_F(FairQueueTest, OneFloodCostsNobodyElse) {
  push(a, "a1");
  push(a, "a2");
  for (int i = 0; i < 1000; ++i) push(b, "b" + std::to_string(i), 30);
  EXPECT_EQ(rest().front(), "a1");
  for (const std::string& name : dropped) EXPECT_EQ(name[0], 'b');
}

TEST_F(FairQueueTest, LargeItemsOfManyLanesCostNobodyElse) {
  push(a, "a1");
  push(a, "a2");
  std::vector<std::shared_ptr<Owner>> hostile;
  hostile.reserve(5);
  for (int i = 0; i < 5; ++i) hostile.push_back(std::make_shared<Owner>());
  for (int i = 0; i < 50; ++i) push(hostile[static_cast<std::size_t>(i) % 5], "h", 90);
  push(a, "a3");
  for (const std::string& name : dropped) EXPECT_EQ(name, "h");
  EXPECT_GT(dropped.size(), 40U);
  rest();
}

TEST_F(FairQueueTest, BoundsBytesToo) {
  push(a, "a1", 60);
  push(a, "a2", 60);
  push(a, "a3", 60);
  EXPECT_EQ(dropped, (std::vector<std::string>{"a1"}));
  push(a, "a4", 500);
  EXPECT_EQ(dropped, (std::vector<std::string>{"a1", "a2"}));
  EXPECT_EQ(queue.bytes(), 560U);
  push(a, "a5", 10);
  EXPECT_EQ(dropped, (std::vector<std::string>{"a1", "a2", "a3", "a4"}));
  EXPECT_EQ(queue.bytes(), 10U);
}

TEST_F(FairQueueTest, NeverDropsWhatMustNotBeLost) {
  for (const char* name : {"c1", "c2", "c3", "c4", "c5"}) push(a, name, 1, false);
  for (const char* name : {"d1", "d2", "d3", "d4", "d5", "d6"}) push(a, name);
  EXPECT_EQ(dropped, (std::vector<std::string>{"d1"}));
  EXPECT_EQ(rest(), (std::vector<std::string>{"c1", "c2", "c3", "c4", "c5", "d2", "d3", "d4", "d5", "d6"}));
}

TEST_F(FairQueueTest, PassesOverALaneUntilItIsReady) {
  queue.setReady(a, false);
  push(a, "a1");
  push(b, "b1");
  EXPECT_EQ(rest(), (std::vector<std::string>{"b1"}));
  EXPECT_EQ(queue.items(), 1U);
  queue.setReady(a, true);
  EXPECT_EQ(rest(), (std::vector<std::string>{"a1"}));
}

TEST_F(FairQueueTest, TakesBackWhatCouldNotLeave) {
  push(a, "a1");
  push(a, "a2");
  auto first = queue.pop();
  queue.pushFront(first->first, std::move(first->second));
  EXPECT_EQ(rest(), (std::vector<std::string>{"a1", "a2"}));
}

TEST_F(FairQueueTest, TrimsAndClearsALane) {
  for (const char* name : {"a1", "a2", "a3"}) push(a, name);
  queue.trim(*a, 1, [&](const Piece& piece) { dropped.push_back(piece.name); });
  EXPECT_EQ(dropped, (std::vector<std::string>{"a1", "a2"}));
  queue.clear(*a, [&](const Piece& piece) { dropped.push_back(piece.name); });
  EXPECT_EQ(dropped, (std::vector<std::string>{"a1", "a2", "a3"}));
  EXPECT_EQ(queue.items(), 0U);
  push(a, "a4");
  EXPECT_EQ(rest(), (std::vector<std::string>{"a4"}));
}

}  // namespace
}  // namespace kel

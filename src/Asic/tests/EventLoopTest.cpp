#include "Asic/EventLoop.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Asic {
namespace {

// Verify that one turn runs exactly the tasks queued before it began, in order; tasks
// they post wait for the next turn.
TEST(EventLoopTest, RunOnceRunsOnlyTasksQueuedBeforeTheTurn) {
   EventLoop loop;
   std::vector<std::string> ran;
   loop.post([&] {
      ran.push_back("a");
      loop.post([&] { ran.push_back("c"); });
   });
   loop.post([&] { ran.push_back("b"); });

   EXPECT_EQ(loop.runOnce(), 2u);
   EXPECT_EQ(ran, (std::vector<std::string>{"a", "b"}));
   EXPECT_EQ(loop.pending(), 1u);
   EXPECT_EQ(loop.runOnce(), 1u);
   EXPECT_EQ(ran, (std::vector<std::string>{"a", "b", "c"}));
   EXPECT_EQ(loop.runOnce(), 0u);
   EXPECT_EQ(loop.turns(), 3u);
}

// Verify that running until idle drains chains of tasks posted by tasks.
TEST(EventLoopTest, RunUntilIdleDrainsChains) {
   EventLoop loop;
   int depth = 0;
   std::function<void()> step = [&] {
      if (++depth < 5) loop.post(step);
   };
   loop.post(step);
   loop.post([] {});
   EXPECT_EQ(loop.runUntilIdle(), 6u);
   EXPECT_EQ(depth, 5);
   EXPECT_EQ(loop.pending(), 0u);
   EXPECT_EQ(loop.turns(), 5u);
   EXPECT_EQ(loop.runUntilIdle(), 0u);
}

// Verify that a task that throws loses no other task: the rest run on the next turn.
TEST(EventLoopTest, ThrowingTaskKeepsTheRestQueued) {
   EventLoop loop;
   std::vector<int> ran;
   loop.post([&] { ran.push_back(1); });
   loop.post([] { throw std::runtime_error("task failed"); });
   loop.post([&] { ran.push_back(3); });
   EXPECT_THROW(loop.runOnce(), std::runtime_error);
   EXPECT_EQ(ran, std::vector<int>{1});
   EXPECT_EQ(loop.pending(), 1u);
   EXPECT_EQ(loop.runUntilIdle(), 1u);
   EXPECT_EQ(ran, (std::vector<int>{1, 3}));
}

}  // namespace
}  // namespace Asic

#include "win32/thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <thread>
#include <vector>

#include "tests/portable/support/memory_bitmap_files.h"

namespace zel {
namespace {

using test::Gate;

void WaitForPosted(ThreadPool& pool) {
  const ThreadPool::Mark posted = pool.Posted();
  while (!pool.HaveEnded(posted)) std::this_thread::yield();
}

TEST(ThreadPoolTest, WithoutThreadsTheCallerWorksInOrder) {
  ThreadPool pool;
  std::vector<std::size_t> order;
  pool.Post([&] { order.push_back(100); });
  pool.RunAll(3, 8, [&](std::size_t i) { order.push_back(i); });
  WaitForPosted(pool);
  EXPECT_EQ(order, (std::vector<std::size_t>{100, 0, 1, 2}));
}

TEST(ThreadPoolTest, EachJobOfABatchRunsOnceAndAllHaveEnded) {
  ThreadPool pool;
  pool.Start(4);
  std::vector<std::atomic<int>> runs(1000);
  pool.RunAll(runs.size(), 4, [&](std::size_t i) { ++runs[i]; });
  for (const auto& count : runs) EXPECT_EQ(count, 1);
  pool.Stop();
}

TEST(ThreadPoolTest, BatchRunsSideBySideAndLeavesThreadsToWhatIsPosted) {
  ThreadPool pool;
  pool.Start(4);
  Gate gate;
  std::jthread batch([&] { pool.RunAll(10, 3, [&](std::size_t) { gate.Pass(); }); });
  gate.WaitForThreads(3);
  std::atomic<bool> posted{false};
  pool.Post([&] { posted = true; });
  WaitForPosted(pool);  // the batch holds its caller and two threads
  EXPECT_TRUE(posted);
  gate.Open();
  batch.join();
  pool.Stop();
}

TEST(ThreadPoolTest, MarkCountsWhatWasPostedBeforeAndNothingElse) {
  ThreadPool pool;
  pool.Start(2);
  Gate first;
  Gate second;
  pool.Post([&] { first.Pass(); });
  const ThreadPool::Mark mark = pool.Posted();
  first.WaitForThreads(1);
  EXPECT_FALSE(pool.HaveEnded(mark));
  pool.Post([&] { second.Pass(); });
  second.WaitForThreads(1);
  first.Open();
  while (!pool.HaveEnded(mark)) std::this_thread::yield();
  EXPECT_FALSE(pool.HaveEnded(pool.Posted()));
  second.Open();
  pool.Stop();
  EXPECT_TRUE(pool.HaveEnded(pool.Posted()));
}

TEST(ThreadPoolTest, StopCarriesOutWhatWasPosted) {
  ThreadPool pool;
  pool.Start(2);
  std::atomic<int> done{0};
  for (int i = 0; i < 500; ++i) pool.Post([&] { ++done; });
  pool.Stop();
  EXPECT_EQ(done, 500);
  pool.Post([&] { ++done; });
  EXPECT_EQ(done, 501);
}

TEST(ThreadPoolTest, ManyThreadsPostWaitBatchAndStop) {
  ThreadPool pool;
  pool.Start(3);
  std::atomic<int> done{0};
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 8; ++thread) {
      threads.emplace_back([&, thread] {
        for (int round = 0; round < 200; ++round) {
          pool.Post([&] { ++done; });
          if (round % 10 == 0) WaitForPosted(pool);
          if (round % 20 == 0) pool.RunAll(5, 3, [&](std::size_t) { ++done; });
          if (thread == 0 && round == 150) pool.Stop();
        }
      });
    }
  }
  pool.Stop();
  EXPECT_EQ(done, 8 * (200 + 10 * 5));
}

}  // namespace
}  // namespace zel

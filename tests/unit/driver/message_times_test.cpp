#include "driver/message_times.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace zel {
namespace {

TEST(HighWaterMarkTest, RisesAndNeverFalls) {
  HighWaterMark mark;
  EXPECT_EQ(mark.Get(), 0u);
  mark.Raise(5);
  EXPECT_EQ(mark.Get(), 5u);
  mark.Raise(4);
  EXPECT_EQ(mark.Get(), 5u);
  mark.Raise(5);
  EXPECT_EQ(mark.Get(), 5u);
  mark.Raise(~FileTime{0});
  EXPECT_EQ(mark.Get(), ~FileTime{0});
}

TEST(HighWaterMarkTest, LatestTimeWinsAmongManyThreads) {
  HighWaterMark mark;
  {
    std::vector<std::jthread> threads;
    for (FileTime thread = 0; thread < 4; ++thread) {
      threads.emplace_back([&mark, thread] {
        FileTime before = 0;
        for (FileTime time = thread; time < 40'000; time += 4) {
          mark.Raise(time ^ 3);  // not in order
          const FileTime now = mark.Get();
          EXPECT_GE(now, before);
          EXPECT_GE(now, time ^ 3);
          before = now;
        }
      });
    }
  }
  EXPECT_EQ(mark.Get(), 39'999u);
}

TEST(HighWaterMarkTest, ReaderOfATimeSeesWhatWasDoneBefore) {
  HighWaterMark mark;
  int done = 0;
  const std::jthread raiser([&] {
    done = 1;
    mark.Raise(7);
  });
  while (mark.Get() < 7) std::this_thread::yield();
  EXPECT_EQ(done, 1);  // ThreadSanitizer watches
}

}  // namespace
}  // namespace zel

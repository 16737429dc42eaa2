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

TEST(SyncTimeTest, WatchSeesWhatCameSinceAtOrPastItsPoint) {
  SyncTime times;
  times.Raise(100);
  const SyncTime::Watch watch(times, 50);
  EXPECT_FALSE(watch.HasSeen(1000));
  times.Raise(49);
  EXPECT_FALSE(watch.HasSeen(1000));
  times.Raise(50);  // although 100 stays the latest
  EXPECT_TRUE(watch.HasSeen(1000));
  EXPECT_EQ(times.Get(), 100u);
}

TEST(SyncTimeTest, WatchDoesNotSeeTheFuture) {
  SyncTime times;
  const SyncTime::Watch watch(times, 50);
  times.Raise(70);
  EXPECT_FALSE(watch.HasSeen(69));
  times.Raise(60);
  EXPECT_FALSE(watch.HasSeen(59));
  EXPECT_TRUE(watch.HasSeen(60));
}

TEST(SyncTimeTest, EveryWatchSeesUntilItGoes) {
  SyncTime times;
  const SyncTime::Watch first(times, 1);
  {
    const SyncTime::Watch second(times, 1);
    const SyncTime::Watch third(times, 2);
    times.Raise(1);
    EXPECT_TRUE(first.HasSeen(1));
    EXPECT_TRUE(second.HasSeen(1));
    EXPECT_FALSE(third.HasSeen(1));
  }
  times.Raise(2);
  const SyncTime::Watch later(times, 1);
  EXPECT_FALSE(later.HasSeen(2));
}

TEST(SyncTimeTest, WatchesComeAndGoWhileTimesAreRaised) {
  SyncTime times;
  std::vector<std::jthread> threads;
  for (FileTime thread = 1; thread <= 4; ++thread) {
    threads.emplace_back([&times, thread] {
      for (int i = 0; i < 1000; ++i) {
        const SyncTime::Watch watch(times, thread);
        times.Raise(thread);
        EXPECT_TRUE(watch.HasSeen(thread));
      }
    });
  }
}

}  // namespace
}  // namespace zel

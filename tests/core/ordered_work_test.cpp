#include "core/ordered_work.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>

namespace zul {
namespace {

// With no thread each piece runs at once on the calling thread.
TEST(OrderedWork, GivesResultsInTheOrderOfThePieces) {
  for (const unsigned threads : {0u, 1u, 3u}) {
    SCOPED_TRACE(threads);
    constexpr std::size_t kBound = 4;
    constexpr int kPieces = 200;
    std::atomic<int> unfinished{0};
    std::atomic<int> most_unfinished{0};
    std::string results, expected;
    const auto take = [&results](OrderedWork<std::string>& work) {
      try {
        results += work.Take();
      } catch (const std::runtime_error& error) {
        results += error.what();
      }
    };
    OrderedWork<std::string> work(threads, kBound, [] {});
    for (int i = 0; i < kPieces; ++i) {
      expected += (i % 7 == 0 ? "!" : " ") + std::to_string(i);
      while (work.full()) take(work);
      work.Hand([&, i] {
        most_unfinished = std::max<int>(most_unfinished, ++unfinished);
        std::this_thread::sleep_for(std::chrono::microseconds(i % 3 * 50));
        --unfinished;
        if (i % 7 == 0) throw std::runtime_error("!" + std::to_string(i));
        return " " + std::to_string(i);
      });
    }
    while (!work.empty()) take(work);
    EXPECT_EQ(results, expected);
    EXPECT_LE(most_unfinished, std::max(1u, threads));
  }
}

TEST(OrderedWork, KeepsAliveWhileItWaitsAndEndsEveryPiece) {
  std::atomic<int> ended{0};
  unsigned calls = 0;
  {
    OrderedWork<int> work(2, 8, [&calls] { ++calls; });
    for (int i = 0; i < 8; ++i) {
      work.Hand([&ended, i] {
        std::this_thread::sleep_for(3 * kKeepAlivePeriod);
        ++ended;
        return i;
      });
    }
    EXPECT_TRUE(work.full());
    EXPECT_FALSE(work.IsReady());
    EXPECT_EQ(work.Take(), 0);
    EXPECT_GE(calls, 1u);
  }
  EXPECT_EQ(ended, 8);
}

}  // namespace
}  // namespace zul

#include "core/keep_alive.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <thread>

namespace zul {
namespace {

TEST(KeepAlive, CallsBackOnItsCallersThreadWhileTheWorkBlocks) {
  const auto caller = std::this_thread::get_id();
  int calls = 0;
  const KeepAlive count = [&] {
    ++calls;
    EXPECT_EQ(std::this_thread::get_id(), caller);
  };
  std::thread::id worker;
  const auto work = [&] {
    worker = std::this_thread::get_id();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  };
  RunKeepingAlive(work, count);
  EXPECT_GE(calls, 2);
  EXPECT_NE(worker, caller);
  RunKeepingAlive(work, {});
  EXPECT_EQ(worker, caller);
  EXPECT_THROW(RunKeepingAlive([] { throw std::runtime_error("work"); }, count),
               std::runtime_error);
}

}  // namespace
}  // namespace zul

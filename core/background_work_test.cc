#include "core/background_work.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

TEST(BackgroundWork, StopWaitsForTheLastThread) {
  zelvarpack::BeginBackgroundWork();
  std::thread worker([] {
    while (!zelvarpack::BackgroundWorkStopping()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    zelvarpack::EndBackgroundWork();
  });
  EXPECT_TRUE(zelvarpack::StopBackgroundWork(std::chrono::seconds(20)));
  worker.join();
  EXPECT_FALSE(zelvarpack::BackgroundWorkStopping());
  zelvarpack::BeginBackgroundWork();
  EXPECT_FALSE(zelvarpack::StopBackgroundWork(std::chrono::milliseconds(10)));
  zelvarpack::EndBackgroundWork();
}

}  // namespace

// Every test process ends its background work (downloads a test's page or
// stylesheet stopped waiting for) before the process ends, as the tool
// does: otherwise a download could still be inside the HTTP library while
// the process tears it down.
#include <gtest/gtest.h>

#include <chrono>

#include "core/background_work.h"

namespace {

class StopBackgroundWorkAtTheEnd : public ::testing::Environment {
 public:
  void TearDown() override { zelvarpack::StopBackgroundWork(std::chrono::seconds(30)); }
};

[[maybe_unused]] ::testing::Environment* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new StopBackgroundWorkAtTheEnd);

}  // namespace

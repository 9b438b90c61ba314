// Long random histories of the monitor, every answer and every line compared with the model's.
#include <gtest/gtest.h>

#include <random>

#include "support/monitor_beside_model.h"

namespace {

class AgainstMonitorModel : public testing::TestWithParam<unsigned> {};

// By turns as in a process, and only registering and beating, so that the table fills up.
TEST_P(AgainstMonitorModel, EveryAnswerAndEveryLineIsTheModels) {
  std::mt19937 generator(GetParam());
  const auto random = [&generator] { return static_cast<uint32_t>(generator()); };
  MonitorBesideModel both;
  for (int step = 0; step < 60'000; ++step) {
    const uint32_t operation = (step / 500) % 2 == 0 ? random() : random() % 2;
    const uint32_t who = random();
    ASSERT_TRUE(both.operate(operation, who, random())) << step << ": " << both.difference;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, AgainstMonitorModel, testing::Range(1U, 5U));

}  // namespace

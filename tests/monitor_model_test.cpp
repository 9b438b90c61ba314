// Long random histories of the monitor, every answer and every line compared with the model's.
#include <gtest/gtest.h>

#include <random>

#include "support/monitor_beside_model.h"

namespace {

class AgainstMonitorModel : public testing::TestWithParam<unsigned> {};

TEST_P(AgainstMonitorModel, EveryAnswerAndEveryLineIsTheModels) {
  std::mt19937 random(GetParam());
  std::discrete_distribution<uint32_t> usual(std::begin(MonitorBesideModel::kUsual),
                                             std::end(MonitorBesideModel::kUsual));
  std::discrete_distribution<uint32_t> filling(std::begin(MonitorBesideModel::kFilling),
                                               std::end(MonitorBesideModel::kFilling));
  MonitorBesideModel both;
  for (int step = 0; step < 60'000; ++step) {
    const uint32_t operation = (step / 500) % 2 == 0 ? usual(random) : filling(random);
    const auto who = static_cast<uint32_t>(random());
    ASSERT_TRUE(both.operate(operation, who, static_cast<uint32_t>(random())))
        << step << ": " << both.difference;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, AgainstMonitorModel, testing::Range(1U, 5U));

}  // namespace

// Long random histories of the monitor, every answer and every line compared with the model's.
#include <gtest/gtest.h>

#include <random>

#include "support/monitor_beside_model.h"

namespace {

class AgainstMonitorModel : public testing::TestWithParam<unsigned> {};

TEST_P(AgainstMonitorModel, EveryAnswerAndEveryLineIsTheModels) {
  using Operation = MonitorBesideModel::Operation;
  // Registrations, beats and ticks are the most frequent, as in a process.
  static constexpr Operation kMix[] = {
      Operation::kEnter,   Operation::kEnter,   Operation::kBeat,   Operation::kBeat,
      Operation::kLeave,   Operation::kHook,    Operation::kPolicy, Operation::kTune,
      Operation::kSwitch,  Operation::kAdvance, Operation::kTick,   Operation::kTick,
      Operation::kCapture, Operation::kEnd,     Operation::kBegin,  Operation::kHooks};
  std::mt19937 generator(GetParam());
  const auto random = [&generator] { return static_cast<uint32_t>(generator()); };
  MonitorBesideModel both;
  for (int step = 0; step < 60'000; ++step) {
    // Phases in which few leave or end fill the table up.
    const Operation operation = kMix[random() % ((step / 500) % 2 == 0 ? std::size(kMix) : 4)];
    ASSERT_TRUE(both.operate(operation, random(), random())) << step << ": " << both.difference();
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, AgainstMonitorModel, testing::Range(1U, 5U));

}  // namespace

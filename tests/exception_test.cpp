// Signals that the configuration ignores.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <set>

#include "support/faults.h"
#include "support/recording_platform.h"

namespace {

// The standard signals that are handled or ignored; sanitizers handle some of their own.
std::set<int> handledSignals() {
  std::set<int> handled;
  for (int sig = 1; sig < 32; ++sig) {
    struct sigaction action {};
    sigaction(sig, nullptr, &action);
    if (action.sa_handler != SIG_DFL) {
      handled.insert(sig);
    }
  }
  return handled;
}

TEST(IgnoredSignals, AreAcceptedInOrderUpToTheFirstBadEntry) {
  struct Case {
    const char* yaml;
    uint32_t code;
    const char* message;
  };
  const Case cases[] = {
      {"", 0, nullptr},
      {"other: 1", 0, nullptr},
      {"exception:", 0, nullptr},
      {"exception: {signalIgnore: []}", 0, nullptr},
      {"exception: {signalIgnore: SIGINT}", 0, nullptr},
      {"exception: {signalIgnore: [SIGHUP, SIGTTIN, SIGSYS, SIGTTOU, SIGPIPE, SIGPIPE]}", 0,
       nullptr},
      {"exception: {signalIgnore: [SIGINT]}", QURN_FAILED,
       "Signal ignore operation, signame not support ignore. (sigName = SIGINT)"},
      {"exception: {signalIgnore: [sigpipe]}", QURN_FAILED,
       "Signal ignore operation, signame not support ignore. (sigName = sigpipe)"},
      {"exception: {signalIgnore: [SIGPIPE, '']}", 2, "Signal ignore operation, signame empty."},
      {"exception: {signalIgnore: [[SIGPIPE]]}", 2, "Signal ignore operation, signame empty."},
  };
  for (const Case& step : cases) {
    SCOPED_TRACE(step.yaml);
    recorded::forget();
    configure(step.yaml);
    EXPECT_EQ(FrameExceptionInit(), step.code);
    EXPECT_EQ(recorded::texts(), step.message == nullptr ? std::vector<std::string>{}
                                                         : std::vector<std::string>{step.message});
  }
  configure("exception: {signalIgnore: [SIGHUP]}");
  fault::arm(fault::Call::Sigcap, EINVAL);
  EXPECT_EQ(FrameExceptionInit(), QURN_FAILED);
  EXPECT_ERROR("Signal ignore operation, kem reg unsuccessfully. (ret = 5)");
  configure("{ not yaml");
  EXPECT_EQ(FrameExceptionInit(), QURN_FAILED);
  EXPECT_EQ(recorded::count("Exception operation, cannot get yaml handle. (path = "), 1U);
}

TEST(IgnoredSignals, NoLongerDisturbTheProcess) {
  std::set<int> expected = handledSignals();
  expected.insert({SIGHUP, SIGPIPE});
  configure("exception: {signalIgnore: [SIGPIPE, SIGHUP, SIGTERM]}");
  EXPECT_EQ(FRAME_MntInit(), QURN_FAILED) << "SIGTERM must not be ignored";
  EXPECT_EQ(handledSignals(), expected) << "those before it are";
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  EXPECT_EQ(write(ends[1], "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(raise(SIGHUP), 0);
  EXPECT_EQ(FrameSignalIgnoreFunc(1, nullptr, nullptr), 1U);
}

TEST(SignalNumbers, AreFoundByTheirExactNames) {
  uint32_t sigId = 99;
  EXPECT_EQ(FrameGetSigId("SIGRTMIN", &sigId), QURN_FAILED);
  EXPECT_EQ(FrameGetSigId("sighup", &sigId), QURN_FAILED);
  EXPECT_EQ(sigId, 99U);
  for (const auto& [name, number] :
       {std::pair{"SIG0", 0U}, std::pair{"SIGSYS", 31U}, std::pair{"SIGPIPE", 13U}}) {
    EXPECT_EQ(FrameGetSigId(name, &sigId), QURN_OK);
    EXPECT_EQ(sigId, number);
  }
}

}  // namespace

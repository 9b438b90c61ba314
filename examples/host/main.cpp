// A service process with three monitored workers. After a second of work the second worker meets
// the chosen scenario.
#include <dlfcn.h>
#include <getopt.h>
#include <qurnadapt/qurnadapt.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "scenarios.h"

namespace {

using namespace std::chrono_literals;

constexpr int kWorkers = 3;
constexpr int kWorkerInTrouble = 2;

struct Options {
  const Scenario* scenario = scenarios().data();
  std::array<uint32_t, 3> thresholds{1, 2, 3};  // seconds
  uint32_t periodMs = 500;
  int seconds = 8;
};

std::atomic<bool> g_stopping{false};

const Scenario* findScenario(const char* name) {
  for (const Scenario& scenario : scenarios()) {
    if (std::strcmp(scenario.name, name) == 0) {
      return &scenario;
    }
  }
  return nullptr;
}

// One line a scenario: name, exit status, stuck function or "-", story.
void listScenarios() {
  for (const Scenario& scenario : scenarios()) {
    std::printf("%s %d %s %s\n", scenario.name, scenario.exitStatus,
                scenario.stuckIn == nullptr ? "-" : scenario.stuckIn, scenario.story);
  }
}

[[noreturn]] void usage(int status) {
  std::fputs(
      "Usage: qurn-host [OPTIONS]\n"
      "\n"
      "Serves with three watched threads. After a second the second one meets the scenario.\n"
      "\n"
      "  --scenario NAME     what happens to it, healthy by default\n"
      "  --list              scenarios: name, exit status of the host, where it is stuck, story\n"
      "  --thresholds INFO,WARNING,FATAL\n"
      "                      seconds of silence, 1,2,3 by default\n"
      "  --period MS         how often the threads are looked at, 500 by default\n"
      "  --config FILE       in place of $TOV_COMP_CFG\n"
      "  --seconds N         how long it serves, 8 by default; 0: until SIGTERM\n"
      "\n"
      "Ends with status 0 when its time is over, 1 when start-up fails, 88 after a dead loop,\n"
      "2 after a mistake.\n",
      status == 0 ? stdout : stderr);
  std::exit(status);
}

Options parseOptions(int argc, char** argv) {
  constexpr std::array<option, 8> kLong{{{"scenario", required_argument, nullptr, 's'},
                                         {"thresholds", required_argument, nullptr, 't'},
                                         {"period", required_argument, nullptr, 'p'},
                                         {"config", required_argument, nullptr, 'c'},
                                         {"seconds", required_argument, nullptr, 'n'},
                                         {"list", no_argument, nullptr, 'l'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}}};
  Options options;
  auto& [first, second, third] = options.thresholds;
  for (int c = 0; (c = getopt_long(argc, argv, "", kLong.data(), nullptr)) != -1;) {
    switch (c) {
      case 's':
        options.scenario = findScenario(optarg);
        break;
      case 't':
        if (std::sscanf(optarg, "%u,%u,%u", &first, &second, &third) != 3) {
          usage(2);
        }
        break;
      case 'p':
        options.periodMs = static_cast<uint32_t>(std::strtoul(optarg, nullptr, 10));
        break;
      case 'c':
        setenv("TOV_COMP_CFG", optarg, 1);
        break;
      case 'n':
        options.seconds = std::atoi(optarg);
        break;
      case 'l':
        listScenarios();
        std::exit(0);
      default:
        usage(c == 'h' ? 0 : 2);
    }
  }
  if (options.scenario == nullptr) {
    usage(2);
  }
  return options;
}

// Starts the library as a framework would. Returns its code.
uint32_t startService(const Options& options) {
  FrameSetDeadloopPeriodDelay(options.periodMs);
  const uint32_t ret = FRAME_MntInit();
  return ret != QURN_OK ? ret : FrameKeepAliveByNotifySendReady();
}

// In every thread, for main to take.
sigset_t blockRequestsToStop() {
  sigset_t requests;
  sigemptyset(&requests);
  sigaddset(&requests, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &requests, nullptr);
  return requests;
}

// A stop of the process, once it goes on, interrupts the wait.
void waitForTheEnd(int seconds, const sigset_t& requests) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  int got = 0;
  do {
    const auto left =
        std::chrono::ceil<std::chrono::seconds>(end - std::chrono::steady_clock::now());
    const timespec most{std::max<time_t>(left.count(), 0), 0};
    got = sigtimedwait(&requests, nullptr, seconds > 0 ? &most : nullptr);
  } while (got < 0 && errno == EINTR);
}

}  // namespace

// Plain exported name, as a report shows it.
extern "C" void worker_main(const Options& options, int number) {
  prctl(PR_SET_NAME, ("worker-" + std::to_string(number)).c_str());
  FrameDeadloopHandle self = 0;
  const auto& [first, second, third] = options.thresholds;
  if (Frame_SetHeartbeatToMon(&self, first, second, third) != QURN_OK) {
    return;
  }
  const auto trouble = std::chrono::steady_clock::now() + 1s;
  bool inTrouble =
      number < kWorkerInTrouble || number >= kWorkerInTrouble + options.scenario->workers;
  while (!g_stopping) {
    Frame_SendHeartbeatToMon(&self);
    if (!inTrouble && std::chrono::steady_clock::now() >= trouble) {
      inTrouble = true;
      if (!options.scenario->happen(self)) {
        return;
      }
    }
    std::this_thread::sleep_for(50ms);
  }
  Frame_StopHeartbeatToMon(&self);
}

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  const sigset_t requests = blockRequestsToStop();
  if (dlopen("libbexlin.so", RTLD_NOW | RTLD_GLOBAL) == nullptr) {
    std::fprintf(stderr, "host: no process guard: %s\n", dlerror());
  }
  if (options.scenario->prepare != nullptr) {
    options.scenario->prepare();
  }
  if (const uint32_t ret = startService(options); ret != QURN_OK) {
    std::fprintf(stderr, "host: start-up failed: %#x\n", ret);
    return 1;
  }
  std::printf("host: %s (process %u)\n", options.scenario->story, static_cast<unsigned>(getpid()));
  std::fflush(stdout);
  std::vector<std::thread> workers;
  for (int number = 1; number <= kWorkers; ++number) {
    workers.emplace_back(worker_main, std::cref(options), number);
  }
  waitForTheEnd(options.seconds, requests);
  g_stopping = true;
  for (std::thread& worker : workers) {
    worker.join();
  }
  std::puts("host: done");
  return 0;
}

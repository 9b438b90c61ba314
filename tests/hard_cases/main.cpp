// hard_case END PLACE [THREADS [BYSTANDER]]: so many threads, or for 0 the main one, get stuck in
// the function at_PLACE while another, which is not monitored, is inside at_BYSTANDER. Detection
// passes come ten times a second. END:
//   reported  the process ends with status 88
//   rescued   the threads' hooks end the trouble, and the process goes on
//   left      the threads' hooks end the thread that runs them: the process ends with status 88
//   silenced  no report is possible: heartbeats stop, so that the guard acts
//   unseen    the same, where each heartbeat looks the guard up
//   sampled   captured and reported many times, at moments that nobody chose
// hard_case stepped: the walk before every instruction.
#include <dlfcn.h>
#include <qurnadapt/qurnadapt.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "hard_case.h"

namespace {

using Place = void (*)();

constexpr uint32_t kPeriodMs = 100;

std::string g_end;
std::atomic<int> g_beats{0};
std::atomic<int> g_toRescue{0};
std::atomic<bool> g_go{false};  // the stage is set

Place placeCalled(const std::string& name) {
  return reinterpret_cast<Place>(dlsym(RTLD_DEFAULT, ("at_" + name).c_str()));
}

template <typename Count>
void waitFor(const Count& count, int least = 1) {
  while (count < least) {
    usleep(1000);
  }
}

uint32_t beat(void* /*param*/) {
  if (g_end == "unseen") {
    dlsym(RTLD_DEFAULT, "bexlin_notify");
  }
  ++g_beats;
  return 0;
}

uint32_t rescue(FrameDeadloopHandle* /*handle*/, uint64_t /*threadId*/, uint32_t /*elapsedMs*/) {
  g_rescued = --g_toRescue == 0;
  return 0;
}

uint32_t leave(FrameDeadloopHandle* /*handle*/, uint64_t /*threadId*/, uint32_t /*elapsedMs*/) {
  pthread_exit(nullptr);
}

// Without a hook the library ends the process.
void getStuck(Place place) {
  waitFor(g_go);
  FrameDeadloopHandle self = 0;
  Frame_SetHeartbeatToMon(&self, 1, 1, 1);
  if (g_end == "rescued" || g_end == "left") {
    Frame_RegDeadloopInfoHook(&self, g_end == "left" ? leave : rescue);
  }
  place();
  Frame_StopHeartbeatToMon(&self);
}

// Heartbeats have come, and are to come no more.
void waitForSilence() {
  for (int last = 0; last != g_beats; sleep(3)) {
    last = g_beats;
  }
  say("the heartbeats stopped\n");
  _exit(0);
}

// Captures the thread again and again, with no detection thread to interfere.
void sample(Place place) {
  FrameDeadloopInit();
  std::thread thread(place);
  usleep(100'000);
  for (int i = 0; i < 300; ++i) {
    usleep(static_cast<useconds_t>(rand() % 500));
    FrameThreadDeadloopPrint(thread.native_handle());
    while (FrameGetDeadloopStatus() != FRAME_DEADLOOP_STATUS_CAPTURED) {
      sched_yield();
    }
    FrameWriteDeadloopInfo();
  }
  g_rescued = true;
  thread.join();
}

void watch(Place place, int count, Place bystander) {
  FrameSetDeadloopPeriodDelay(kPeriodMs);
  FRAME_KeepAliveProcSet(kPeriodMs, beat, nullptr);
  FRAME_MntInit();
  // The first tick looks a function up behind its heartbeat, which the loader's lock would stop.
  waitFor(g_beats, 2);
  // Before the allocator may be locked for good.
  std::vector<std::thread> threads;
  g_toRescue = count;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back(getStuck, place);
  }
  if (bystander != nullptr) {
    std::thread(bystander).detach();
    waitFor(g_inside);
  }
  g_go = true;
  if (count == 0) {
    getStuck(place);
  }
  if (g_end == "silenced" || g_end == "unseen") {
    waitForSilence();
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  sleep(1);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  g_end = arguments.at(0);
  if (g_end == "stepped") {
    return stepThroughFunction();
  }
  const Place place = placeCalled(arguments.at(1));
  if (g_end == "sampled") {
    sample(place);
  } else {
    watch(place, argc > 3 ? std::stoi(arguments[2]) : 1,
          argc > 4 ? placeCalled(arguments[3]) : nullptr);
  }
  reportHandler();
  return 0;
}

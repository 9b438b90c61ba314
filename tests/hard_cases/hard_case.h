// A process of its own in which a monitored thread gets stuck in an awkward place.
#pragma once

#include <atomic>
#include <span>

struct HardCase {
  enum class End {
    kReported,  // the process ends with status 88
    kRescued,   // the thread's hook ends the trouble, and the process goes on
    kSilenced,  // no report is possible: heartbeats stop, so that the guard acts
    kSampled,   // captured and reported many times, at moments that nobody chose
  };

  const char* name;
  End end;
  int threads;        // stuck at once; 0 for the main thread
  void (*prepare)();  // on the main thread, before; may be null
  void (*stick)();    // on each stuck thread
};

std::span<const HardCase> hardCases();

// Set by the dead-loop hook of the last stuck thread.
extern std::atomic<bool> g_rescued;

// Walks the stack before every instruction of a function. Returns 0 when all walks were right, 77
// where the machine cannot be stepped.
int stepThroughFunction();

// ---- the watched handler

// The dead-loop handler is called through a guard that ends the process, with a line that starts
// with "forbidden:", when it calls what a handler may not or changes errno. The stack that it needs
// below the interrupted code is measured on paint.

// Prints how often it ran and what it needed. Also when the process ends through _exit.
void reportHandler();
// The stack below is too short for paint.
void doNotPaint();

// Lets the thread that forks hold a mutex meanwhile: the child finds it free, and whole what it
// guards.
#pragma once

#include <pthread.h>

// MUTEX is a function that returns it.
template <auto mutex>
void holdAcrossFork() noexcept {
  constexpr auto kRelease = [] { mutex().unlock(); };
  static_cast<void>(pthread_atfork([] { mutex().lock(); }, kRelease, kRelease));
}

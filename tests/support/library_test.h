// What every test of the library includes.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <tovplatform/stand_in.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <random>
#include <thread>

#include "faults.h"
#include "interpose.h"
#include "recording_platform.h"

using Texts = std::vector<std::string>;
using Codes = std::vector<uint32_t>;

inline bool isCaptured() { return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_CAPTURED; }

// All the library's lines of a level (0: of any) so far, in order.
#define EXPECT_TEXTS(level, ...) EXPECT_EQ(recorded::texts(level), (Texts{__VA_ARGS__}))
// What these calls answer, one after the other.
#define EXPECT_CODES(expected, ...) EXPECT_EQ((Codes{__VA_ARGS__}), expected)

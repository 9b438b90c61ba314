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

// What blocked threads wait for, told by their system calls, by the words at the addresses that
// they wait at, and by the names of the functions that led there.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "snapshot.h"
#include "target.h"

namespace qurn::inspect {

// The name of the function that an address of code lies in, empty where there is none.
using NameOfCode = std::function<std::string(uint64_t address)>;

// Nothing for a thread that is not blocked in a system call.
std::optional<Wait> waitOf(const Target& target, pid_t tid, const Call& call,
                           const std::set<pid_t>& threads, const NameOfCode& nameOfCode);

// Every cycle of threads that wait for each other, each from its lowest thread on.
std::vector<std::vector<pid_t>> cyclesOf(const std::vector<Wait>& waits);

}  // namespace qurn::inspect

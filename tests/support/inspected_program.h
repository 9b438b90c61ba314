// The program that is stuck in every way, beside a test, with what it says of itself.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

struct Truth {
  std::string verdict;
  pid_t holder = 0;
};

// The program, its truth, and a directory that both end with it.
class Inspected {
 public:
  explicit Inspected(const std::vector<std::string>& arguments) : pid_(fork()) {
    if (pid_ == 0) {
      start(arguments);
    }
    waitUntil([this] { return said().ends_with("ready\n"); });
    std::istringstream lines(said());
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      std::string name;
      pid_t tid = 0;
      Truth truth;
      if (words >> name >> tid >> truth.verdict >> truth.holder) {
        tids_[name] = tid;
        truth_[tid] = truth;
      }
    }
  }
  ~Inspected() {
    end(SIGKILL);
    std::filesystem::remove_all(directory_);
  }

  Inspected(const Inspected&) = delete;
  Inspected& operator=(const Inspected&) = delete;

  static void waitUntil(const std::function<bool()>& happens) {
    for (int i = 0; i < 600 && !happens(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ASSERT_TRUE(happens());
  }
  void end(int signal) {
    if (pid_ > 0) {
      kill(pid_, signal);
      while (waitpid(-1, nullptr, __WALL) > 0) {  // threads that are traced have an end each
      }
    }
    pid_ = 0;
  }
  void send(int signal, const std::string& state) const {
    kill(pid_, signal);
    waitUntil([&] { return states().contains(state); });
  }
  std::set<std::string> states() const {
    std::set<std::string> all;
    for (const auto& [name, tid] : tids_) {
      all.insert(fieldOf(tid, "State").substr(0, 1));
    }
    return all;
  }
  // How often each thread that only waits was woken, or stopped.
  std::string switches() const {
    std::string all;
    for (const auto& [name, tid] : tids_) {
      const bool waits = std::string("working loop starved ended").find(truth_.at(tid).verdict) ==
                         std::string::npos;
      all += waits ? name + fieldOf(tid, "voluntary_ctxt_switches") + " " : "";
    }
    return all;
  }
  std::string said() const {
    std::ifstream file(directory_ + "/said");
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::string pid() const { return std::to_string(pid_); }
  const std::string& directory() const { return directory_; }
  const std::map<pid_t, Truth>& truth() const { return truth_; }
  const std::map<std::string, pid_t>& tids() const { return tids_; }

 private:
  [[noreturn]] void start(const std::vector<std::string>& arguments) const {
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    const rlimit small{rlim_t{256} * 1024, RLIM_INFINITY};  // of each thread, for small cores
    setrlimit(RLIMIT_CORE, &unlimited);
    setrlimit(RLIMIT_STACK, &small);
    setenv("MALLOC_ARENA_MAX", "1", 1);  // each takes 64 MiB of a debugger's core
    if (chdir(directory_.c_str()) != 0 ||
        dup2(open("said", O_CREAT | O_WRONLY | O_APPEND, 0644), STDOUT_FILENO) < 0) {
      _exit(1);
    }
    const char* third = arguments.size() > 2 ? arguments[2].c_str() : nullptr;
    execl(INSPECTED, INSPECTED, arguments[0].c_str(), arguments[1].c_str(), third, nullptr);
    _exit(1);
  }
  std::string fieldOf(pid_t tid, const std::string& key) const {
    std::ifstream file("/proc/" + pid() + "/task/" + std::to_string(tid) + "/status");
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with(key + ":\t")) {
        return line.substr(key.size() + 2);
      }
    }
    return {};
  }

  std::string directory_ = [] {
    std::string pattern = std::filesystem::temp_directory_path() / "inspected-XXXXXX";
    return std::string(mkdtemp(pattern.data()));
  }();
  pid_t pid_;
  std::map<std::string, pid_t> tids_;
  std::map<pid_t, Truth> truth_;
};

// Tells why threads of a process are stuck, from outside.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "capture.h"
#include "common/scoped_fd.h"
#include "core_target.h"
#include "inspection.h"
#include "live_target.h"
#include "options.h"
#include "output.h"
#include "stacks.h"

namespace {

using namespace qurn::inspect;

constexpr int kNobodySilent = 0;
constexpr int kSomebodySilent = 1;
constexpr int kMistake = 2;

std::unique_ptr<Target> openTarget(const std::string& target) {
  const bool isPid = target.find_first_not_of("0123456789") == std::string::npos;
  if (isPid && !target.empty()) {
    errno = 0;
    const long pid = std::strtol(target.c_str(), nullptr, 10);
    if (errno != 0 || pid > std::numeric_limits<pid_t>::max()) {
      throw Mistake("no process " + target);
    }
    return std::make_unique<LiveTarget>(static_cast<pid_t>(pid));
  }
  return std::make_unique<CoreTarget>(target);
}

// Whose stacks are asked for: the silent ones, and along the chains of those they wait for.
std::vector<pid_t> threadsToStack(const Target& target, const Snapshot& snapshot, Stacks stacks) {
  if (stacks == Stacks::kAll) {
    return target.threads();
  }
  std::vector<pid_t> wanted;
  std::set<pid_t> seen;
  const auto want = [&](pid_t tid) {
    if (tid != 0 && seen.insert(tid).second) {
      wanted.push_back(tid);
    }
  };
  for (const WatchedThread& thread : snapshot.watched) {
    if (thread.isSilent() && thread.verdict != Verdict::kEnded) {
      want(thread.tid);
    }
  }
  for (size_t i = 0; i < wanted.size(); ++i) {
    for (const Wait& wait : snapshot.waits) {
      if (wait.tid == wanted[i]) {
        want(wait.holder);
      }
    }
  }
  return wanted;
}

Snapshot inspectAll(const Target& target, const Library& library, const Options& options) {
  const Symbols exported(target, options.sources, Symbols::Depth::kExported);
  Snapshot snapshot = inspect(
      target, library, [&exported](uint64_t address) { return exported.nameOf(address); },
      options.betweenLooks);
  if (options.stacks != Stacks::kNone || options.isRecordShown) {
    Symbols symbols(target, options.sources, Symbols::Depth::kEverything);
    if (options.stacks != Stacks::kNone) {
      snapshot.stacks =
          stacksOf(target, threadsToStack(target, snapshot, options.stacks), snapshot, symbols);
    }
    if (options.isRecordShown) {
      snapshot.capture = readCapture(target, library, symbols);
    }
  }
  return snapshot;
}

void print(const std::string& text) {
  if (!(std::cout << text << std::flush)) {
    throw Mistake("cannot write the output");
  }
}

void write(std::ostream& out, const Snapshot& snapshot, Form form) {
  form == Form::kJson      ? writeJson(out, snapshot)
  : form == Form::kMetrics ? writeMetrics(out, snapshot)
                           : writeText(out, snapshot);
}

int statusOf(const Snapshot& snapshot) {
  return snapshot.anybodySilent() ? kSomebodySilent : kNobodySilent;
}

// Redrawn from the top, as one write.
[[noreturn]] void watch(const Target& target, const Library& library, const Options& options) {
  for (;;) {
    std::ostringstream text;
    write(text, inspectAll(target, library, options), options.form);
    print((isatty(STDOUT_FILENO) == 1 ? "\033[H\033[J" : "") + text.str());
    std::this_thread::sleep_for(std::chrono::duration<double>(*options.watchSeconds));
  }
}

// A stopped process raises no level: silences are measured here, and the guard's time-out, which is
// four of the periods at which it is reported to, speaks for the detection thread.
bool hasReached(const Target& target, const Library& library, unsigned level) {
  const timespec now = target.now().value_or(timespec{});
  const Process process = readProcess(target, library, now);
  if (process.isReportedTo && process.lastReportMs > int64_t{2} * process.keepAlivePeriodMs) {
    return true;
  }
  const std::vector<Beat> beats = readWatch(target, library, now);
  return std::any_of(beats.begin(), beats.end(), [level](const Beat& beat) {
    return beat.thread.isMeasured && beat.thread.silenceMs >= beat.thread.thresholdsMs[level - 1];
  });
}

// Beside its place and whole at once: what stands there may be a link to something of value. What
// was on a stack is for the user alone, as in a core.
void writeFile(const std::string& path, const Snapshot& snapshot, Form form) {
  std::string written = path + ".XXXXXX";
  const qurn::ScopedFd created(mkostemp(written.data(), O_CLOEXEC));
  std::ofstream file(written);
  write(file, snapshot, form);
  if (!created.valid() || !file.flush() || rename(written.c_str(), path.c_str()) != 0) {
    const int error = errno;
    unlink(written.c_str());
    throw Mistake("cannot write " + path + ": " + strerror(error));
  }
}

void expectWritable(const std::string& directory) {
  if (access((directory + "/").c_str(), W_OK | X_OK) != 0) {
    throw Mistake("cannot write into " + directory + ": " + strerror(errno));
  }
}

int awaitLevel(const Target& target, const Library& library, Options options) {
  constexpr auto kPause = std::chrono::milliseconds(100);
  expectWritable(options.output);  // not only once there is something to write
  while (!hasReached(target, library, *options.awaitedLevel)) {
    std::this_thread::sleep_for(kPause);
    if (!isThere(target, library)) {
      return kNobodySilent;  // it has ended before anything happened
    }
  }
  options.stacks = Stacks::kAll;
  options.isRecordShown = true;
  const Snapshot snapshot = inspectAll(target, library, options);
  const std::string base = options.output + "/" + std::to_string(target.pid());
  writeFile(base + ".txt", snapshot, Form::kText);
  writeFile(base + ".json", snapshot, Form::kJson);
  return statusOf(snapshot);
}

int run(const Options& options) {
  const std::unique_ptr<Target> target = openTarget(options.target);
  const Library library = findLibrary(*target);
  if (!options.sources.program.empty() && access(options.sources.program.c_str(), R_OK) != 0) {
    throw Mistake("cannot read " + options.sources.program + ": " + strerror(errno));
  }
  if (target->isCore() && (options.watchSeconds || options.awaitedLevel)) {
    throw Mistake("a core does not change");
  }
  if (options.awaitedLevel) {
    return awaitLevel(*target, library, options);
  }
  if (options.watchSeconds) {
    watch(*target, library, options);
  }
  const Snapshot snapshot = inspectAll(*target, library, options);
  write(std::cout, snapshot, options.form);
  print("");
  return statusOf(snapshot);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  try {
    return run(options);
  } catch (const std::exception& mistake) {
    std::cerr << "qurn-inspect: " << mistake.what() << "\n";
    return kMistake;
  }
}

#include "options.h"

#include <getopt.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace qurn::inspect {
namespace {

constexpr const char* kUsage =
    "Usage: qurn-inspect [OPTIONS] PID|CORE\n"
    "\n"
    "Tells what each watched thread of a process is up to, who waits for whom, and who deadlocks.\n"
    "Without --stacks nothing is stopped or attached to.\n"
    "\n"
    "  --stacks[=all]      the stacks of silent threads and of those they wait for, or of all;\n"
    "                      each thread is stopped for as long as it takes to copy its stack,\n"
    "                      which ends an epoll_wait, but not a read, with EINTR\n"
    "  --record            the library's last capture: call stack, registers, stack\n"
    "  --json              for machines\n"
    "  --metrics           in the Prometheus text format\n"
    "  --watch[=SECONDS]   again every so often, 1 by default, until interrupted\n"
    "  --at LEVEL          wait until a thread has been silent beyond its threshold, `warning` or\n"
    "                      `fatal`, or the guard has heard nothing for half its time-out; then\n"
    "                      write everything, stacks included, into files in the directory of\n"
    "  --output DIR\n"
    "  --between MS        how long after the first look the second one is, 100 by default\n"
    "  --program FILE      the program that a core is of, where it is no longer at its place\n"
    "  --debug-path PATH   where debug information is looked for\n"
    "\n"
    "Ends with status 0 when nobody is silent beyond a threshold, 1 when somebody is, 2 after a\n"
    "mistake.\n";

constexpr int kMistake = 2;

[[noreturn]] void fail(const std::string& why) {
  std::cerr << "qurn-inspect: " << why << "\n";
  std::exit(kMistake);
}

double numberIn(const char* text, double least, double most) {
  char* end = nullptr;
  const double number = std::strtod(text, &end);
  if (end == text || *end != '\0' || !(number >= least && number <= most)) {
    fail(std::string("no number within range: ") + text);
  }
  return number;
}

unsigned levelIn(const char* text) {
  if (strcmp(text, "warning") == 0) {
    return 2;
  }
  if (strcmp(text, "fatal") != 0) {
    fail(std::string("no level, `warning` or `fatal`: ") + text);
  }
  return 3;
}

void take(int which, const char* value, Options& options) {
  switch (which) {
    case 's':
      if (value != nullptr && strcmp(value, "all") != 0) {
        fail(std::string("no kind of stacks: ") + value);
      }
      options.stacks = value == nullptr ? Stacks::kSilent : Stacks::kAll;
      break;
    case 'r':
      options.isRecordShown = true;
      break;
    case 'j':
      options.form = Form::kJson;
      break;
    case 'm':
      options.form = Form::kMetrics;
      break;
    case 'w':
      options.watchSeconds = value == nullptr ? 1 : numberIn(value, 0.1, 86400);
      break;
    case 'a':
      options.awaitedLevel = levelIn(value);
      break;
    case 'o':
      options.output = value;
      break;
    case 'b':
      options.betweenLooks =
          std::chrono::milliseconds(static_cast<int64_t>(numberIn(value, 1, 60000)));
      break;
    case 'p':
      options.sources.program = value;
      break;
    case 'd':
      options.sources.debugPath = value;
      break;
    default:
      (which == 'h' ? std::cout : std::cerr) << kUsage;
      std::exit(which == 'h' ? 0 : kMistake);
  }
}

}  // namespace

Options parseOptions(int argc, char** argv) {
  constexpr std::array<option, 12> kLong{{{"stacks", optional_argument, nullptr, 's'},
                                          {"record", no_argument, nullptr, 'r'},
                                          {"json", no_argument, nullptr, 'j'},
                                          {"metrics", no_argument, nullptr, 'm'},
                                          {"watch", optional_argument, nullptr, 'w'},
                                          {"at", required_argument, nullptr, 'a'},
                                          {"output", required_argument, nullptr, 'o'},
                                          {"between", required_argument, nullptr, 'b'},
                                          {"program", required_argument, nullptr, 'p'},
                                          {"debug-path", required_argument, nullptr, 'd'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}}};
  Options options;
  for (int c = 0; (c = getopt_long(argc, argv, "", kLong.data(), nullptr)) != -1;) {
    take(c, optarg, options);
  }
  if (argc - optind != 1) {
    fail("one process or core at a time (--help tells more)");
  }
  options.target = argv[optind];
  if (options.awaitedLevel.has_value() == options.output.empty()) {
    fail("--at and --output go together");
  }
  return options;
}

}  // namespace qurn::inspect

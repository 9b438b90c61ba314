// Prints the dead loops that a log tells of, each as a trace with a timeline of the silence before
// it.
#include <getopt.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "log_reader.h"
#include "output.h"
#include "symbols.h"

namespace {

constexpr int kFound = 0;
constexpr int kNoneFound = 1;
constexpr int kMistake = 2;

constexpr const char* kUsage =
    "usage: qurn-report [--json] [--program FILE [--base ADDRESS]] [--maps FILE]\n"
    "                   [--group | --collapsed] [LOG]\n"
    "Prints the dead loops that LOG, or standard input, tells of.\n"
    "\n"
    "  --json          for machines\n"
    "  --group         tell dead loops that are stuck at the same place once, the most frequent "
    "first\n"
    "  --collapsed     stacks and how often each was seen, for flame graphs\n"
    "  --program FILE  take source lines, and names for bare addresses, from this program; a\n"
    "                  position-independent one's addresses need its place in memory as well:\n"
    "  --base ADDRESS  where it was loaded\n"
    "  --maps FILE     a copy of /proc/PID/maps, made while the process ran: the same for the\n"
    "                  program and every library in it\n"
    "\n"
    "Ends with status 0 when there is a dead loop, 1 when there is none, 2 after a mistake.\n";

struct Options {
  bool json = false;
  bool group = false;
  bool collapsed = false;
  std::string program;
  uint64_t base = 0;
  std::string maps;
  std::string log;
};

[[noreturn]] void fail(const std::string& why) {
  std::cerr << "qurn-report: " << why << "\n";
  std::exit(kMistake);
}

uint64_t addressOf(const std::string& text) {
  size_t used = 0;
  try {
    const uint64_t address = std::stoull(text, &used, 16);
    if (used == text.size()) {
      return address;
    }
  } catch (const std::exception&) {
    used = 0;
  }
  fail("no hexadecimal address: " + text);
}

Options parseOptions(int argc, char** argv) {
  constexpr std::array<option, 8> kLong{{{"json", no_argument, nullptr, 'j'},
                                         {"group", no_argument, nullptr, 'g'},
                                         {"collapsed", no_argument, nullptr, 'c'},
                                         {"program", required_argument, nullptr, 'p'},
                                         {"base", required_argument, nullptr, 'b'},
                                         {"maps", required_argument, nullptr, 'm'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}}};
  Options options;
  for (int c = 0; (c = getopt_long(argc, argv, "", kLong.data(), nullptr)) != -1;) {
    switch (c) {
      case 'j':
        options.json = true;
        break;
      case 'g':
        options.group = true;
        break;
      case 'c':
        options.collapsed = true;
        break;
      case 'p':
        options.program = optarg;
        break;
      case 'b':
        options.base = addressOf(optarg);
        break;
      case 'm':
        options.maps = optarg;
        break;
      default:
        (c == 'h' ? std::cout : std::cerr) << kUsage;
        std::exit(c == 'h' ? kFound : kMistake);
    }
  }
  if (options.collapsed && (options.json || options.group)) {
    fail("--collapsed is a form of its own");
  }
  if (argc - optind > 1) {
    fail("one log at a time");
  }
  options.log = optind < argc ? argv[optind] : "-";
  return options;
}

qurn::report::Symbols symbolsFor(const Options& options) {
  qurn::report::Symbols symbols;
  if (!options.program.empty() && !symbols.addProgram(options.program, options.base)) {
    fail("cannot read the program " + options.program);
  }
  if (!options.maps.empty() && !symbols.addMemoryMap(options.maps)) {
    fail("cannot read the memory map " + options.maps);
  }
  return symbols;
}

std::vector<qurn::report::DeadLoop> read(const std::string& log) {
  if (log == "-") {
    return qurn::report::readLog(std::cin);
  }
  std::ifstream file(log);
  if (!file) {
    fail("cannot read the log " + log);
  }
  return qurn::report::readLog(file);
}

template <typename Told>
void write(const std::vector<Told>& told, bool json) {
  if (json) {
    qurn::report::writeJson(std::cout, told);
  } else {
    qurn::report::writeText(std::cout, told, isatty(STDOUT_FILENO) == 1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  const Options options = parseOptions(argc, argv);
  const qurn::report::Symbols symbols = symbolsFor(options);
  std::vector<qurn::report::DeadLoop> loops = read(options.log);
  for (qurn::report::DeadLoop& loop : loops) {
    for (qurn::report::Frame& frame : loop.frames) {
      symbols.explain(frame, &frame != &loop.frames.front());
    }
  }
  if (options.collapsed) {
    qurn::report::writeCollapsed(std::cout, qurn::report::collapsedStacks(loops));
  } else if (options.group) {
    write(qurn::report::groupsOf(loops), options.json);
  } else {
    write(loops, options.json);
  }
  return loops.empty() ? kNoneFound : kFound;
}

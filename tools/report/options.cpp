#include "options.h"

#include <getopt.h>

#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "../common/printable.h"

namespace qurn::report {
namespace {

constexpr const char* kUsage =
    "Usage: qurn-report [OPTIONS] [LOG]...\n"
    "\n"
    "Prints the dead loops that the LOGs, or standard input, tell of. A LOG may be a directory of\n"
    "logs, and be packed by gzip or zstd. The parts of one that was rotated are read as one.\n"
    "\n"
    "  --json          for machines\n"
    "  --group         tell dead loops that are stuck at the same place once, the most frequent "
    "first\n"
    "  --collapsed     stacks and how often each was seen, for flame graphs\n"
    "  --follow        go on as the last log grows, until interrupted; with --json an object a "
    "line\n"
    "  --since TIME    those reported then or later: 2026-11-26, \"2026-11-26 06:59:26\",\n"
    "                  2026-11-26T06:59:26+01:00, or -90s, -15m, -2h, -7d ago; without a zone a\n"
    "                  time is in UTC, in logs too\n"
    "  --until TIME    those reported then or earlier\n"
    "  --process NAME|PID\n"
    "                  those in this process; may be given several times\n"
    "  --thread NAME|TID\n"
    "                  those of this thread; may be given several times\n"
    "  --journal[=UNIT]\n"
    "                  read the system's journal of this boot, or what a unit wrote there\n"
    "  --journal-dir DIR\n"
    "                  read the journal in this directory, of all boots\n"
    "  --boot[=WHICH]  of the journal's last boot, the one before it (-1), all, or one by its id\n"
    "  --program FILE  take source lines, and names for bare addresses, from this program; a\n"
    "                  position-independent one's addresses need its place in memory as well:\n"
    "  --base ADDRESS  where it was loaded\n"
    "  --maps FILE     a copy of /proc/PID/maps, made while the process ran: the same for the\n"
    "                  program and every library in it\n"
    "  --maps DIR      where there is a PID.maps for each process; without it they are sought\n"
    "                  where the logs are, in $RUNTIME_DIRECTORY, /run/PROCESS and /run/UNIT\n"
    "\n"
    "Ends with status 0 when there is a dead loop, 1 when there is none, 2 after a mistake or "
    "when\n"
    "some of a log could not be read; what could be is told.\n";

uint64_t addressIn(const char* text) {
  const char* end = text + strlen(text);
  const char* digits = text + (strncmp(text, "0x", 2) == 0 ? 2 : 0);
  uint64_t address = 0;
  const auto [parsed, mistake] = std::from_chars(digits, end, address, 16);
  if (mistake != std::errc() || parsed != end) {
    fail(std::string("no hexadecimal address: ") + text);
  }
  return address;
}

Time timeOption(const char* text) {
  const std::optional<Time> time = timeOrAgeIn(text, currentTime());
  if (!time) {
    fail(std::string("no time: ") + text);
  }
  return *time;
}

struct Rule {
  const char* name;
  int argument;
  void (*take)(const char* value, Options& options);
};

JournalChoice& journalOf(Options& options) {
  return options.journal ? *options.journal : options.journal.emplace();
}

constexpr std::array kRules{
    Rule{"json", no_argument, [](const char*, Options& options) { options.json = true; }},
    Rule{"group", no_argument, [](const char*, Options& options) { options.group = true; }},
    Rule{"collapsed", no_argument, [](const char*, Options& options) { options.collapsed = true; }},
    Rule{"follow", no_argument, [](const char*, Options& options) { options.follow = true; }},
    Rule{"since", required_argument,
         [](const char* value, Options& options) { options.selection.since = timeOption(value); }},
    Rule{"until", required_argument,
         [](const char* value, Options& options) { options.selection.until = timeOption(value); }},
    Rule{"process", required_argument,
         [](const char* value, Options& options) {
           options.selection.processes.emplace_back(value);
         }},
    Rule{
        "thread", required_argument,
        [](const char* value, Options& options) { options.selection.threads.emplace_back(value); }},
    Rule{"journal", optional_argument,
         [](const char* value, Options& options) {
           journalOf(options).unit = value == nullptr ? "" : value;
         }},
    Rule{"journal-dir", required_argument,
         [](const char* value, Options& options) { journalOf(options).directory = value; }},
    Rule{"boot", optional_argument,
         [](const char* value, Options& options) {
           journalOf(options).boot = value == nullptr ? "0" : value;
         }},
    Rule{"program", required_argument,
         [](const char* value, Options& options) { options.program = value; }},
    Rule{"base", required_argument,
         [](const char* value, Options& options) { options.base = addressIn(value); }},
    Rule{"maps", required_argument,
         [](const char* value, Options& options) { options.maps = value; }},
    Rule{"help", no_argument,
         [](const char*, Options&) {
           std::cout << kUsage;
           std::exit(kFound);
         }},
};

}  // namespace

Options parseOptions(int argc, char** argv) {
  std::array<option, kRules.size() + 1> longOptions{};
  for (size_t i = 0; i < kRules.size(); ++i) {
    longOptions.at(i) = {kRules.at(i).name, kRules.at(i).argument, nullptr, static_cast<int>(i)};
  }
  Options options;
  for (int c = 0; (c = getopt_long(argc, argv, "", longOptions.data(), nullptr)) != -1;) {
    if (c == '?') {
      std::cerr << kUsage;
      std::exit(kMistake);
    }
    kRules.at(static_cast<size_t>(c)).take(optarg, options);
  }
  if (options.collapsed && (options.json || options.group)) {
    fail("--collapsed is a form of its own");
  }
  if (options.follow && (options.group || options.collapsed)) {
    fail("--follow does not come to the end, where --group and --collapsed are told");
  }
  options.logs.assign(argv + optind, argv + argc);
  if (options.journal && !options.logs.empty()) {
    fail("either the journal is read, or logs are");
  }
  if (options.logs.empty()) {
    options.logs = {"-"};
  }
  return options;
}

// Names of files may be whatever a log may hold.
void complain(const std::string& why) { std::cerr << "qurn-report: " << printable(why) << "\n"; }

void fail(const std::string& why) {
  complain(why);
  std::exit(kMistake);
}

}  // namespace qurn::report

#include "options.h"

#include <getopt.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using std::chrono::milliseconds;

constexpr double kMostSeconds = 31'536'000;  // a year
constexpr int kMostRestarts = 1'000'000;

struct Rule {
  const char* name;
  const char* value;  // as the help calls it
  const char* takes;
  bool (*take)(Options& options, const char* text);
  std::string (*told)(const Options& options);
  const char* meaning;
};

template <typename Number>
bool parse(const char* text, Number& number) {
  const char* const end = text + std::strlen(text);
  const auto [stop, error] = std::from_chars(text, end, number);
  return error == std::errc() && stop == end;
}

template <milliseconds Options::*kTime>
constexpr Rule timeRule(const char* name, const char* meaning) {
  return {name,
          "SECONDS",
          "seconds, from 0.001 to 31536000",
          [](Options& options, const char* text) {
            double seconds = 0;
            if (!parse(text, seconds) || !(seconds >= 0.001 && seconds <= kMostSeconds)) {
              return false;
            }
            options.*kTime =
                std::chrono::round<milliseconds>(std::chrono::duration<double>(seconds));
            return true;
          },
          [](const Options& options) {
            const std::chrono::duration<double> seconds = options.*kTime;
            std::array<char, 32> text{};
            std::snprintf(text.data(), text.size(), "%g", seconds.count());
            return std::string(text.data());
          },
          meaning};
}

bool takeRestarts(Options& options, const char* text) {
  return parse(text, options.restarts) && options.restarts >= 0 &&
         options.restarts <= kMostRestarts;
}

bool takeBeforeKill(Options& options, const char* text) {
  options.beforeKill = text;
  return *text != '\0';
}

constexpr std::array<Rule, 7> kRules{
    {timeRule<&Options::watchdog>("watchdog", "kill it after so long without a heartbeat"),
     {"restarts", "N", "a whole number from 0 to 1000000", takeRestarts,
      [](const Options& options) { return std::to_string(options.restarts); },
      "restart it at most N times within a window"},
     timeRule<&Options::within>("within", "how long the window is"),
     timeRule<&Options::delay>("delay", "before the first restart; doubles up to 10"),
     timeRule<&Options::stopTimeout>("stop-timeout", "kill it so long after SIGTERM"),
     {"before-kill", "COMMAND", "a command", takeBeforeKill,
      [](const Options& options) {
        return std::string(options.beforeKill == nullptr ? "none" : options.beforeKill);
      },
      "let sh run it before a silent service is killed"},
     timeRule<&Options::beforeKillTimeout>("before-kill-timeout",
                                           "kill that command after so long")}};

[[noreturn]] void help() {
  std::puts(
      "Usage: qurn-guard [OPTIONS] COMMAND [ARGUMENTS...]\n"
      "\n"
      "Runs COMMAND, a service that tells $NOTIFY_SOCKET READY=1 within 30 s and WATCHDOG=1 from "
      "then\n"
      "on, and kills it when it falls silent. It is restarted then, after exit status 88 and when "
      "it\n"
      "died of a signal; else the guard ends, as the service did. SIGTERM, SIGINT and SIGHUP to "
      "the\n"
      "guard end both, the service by SIGTERM.\n");
  for (const Rule& rule : kRules) {
    std::printf("  %-30s %s (default: %s)\n",
                (std::string("--") + rule.name + " " + rule.value).c_str(), rule.meaning,
                rule.told({}).c_str());
  }
  std::puts(
      "  --help                         this text\n"
      "\n"
      "The command before a kill has the service's process id as its $1 and as $MAINPID.\n"
      "\n"
      "Ends with the status of the service's last run, 128 and the signal's number if it died of "
      "one,\n"
      "127 if it could not be started; with 2 after a mistake in the options.");
  std::exit(0);
}

[[noreturn]] void refuse() {
  std::fputs("Try \"qurn-guard --help\".\n", stderr);
  std::exit(2);
}

}  // namespace

Options parseOptions(int argc, char** argv) {
  std::array<option, kRules.size() + 2> known{};
  for (size_t i = 0; i < kRules.size(); ++i) {
    known[i] = {kRules[i].name, required_argument, nullptr, 1};
  }
  known[kRules.size()] = {"help", no_argument, nullptr, 'h'};
  Options options;
  int which = 0;
  for (int c = 0; (c = getopt_long(argc, argv, "+", known.data(), &which)) != -1;) {
    if (c == 'h') {
      help();
    }
    if (c != 1) {
      refuse();
    }
    if (const Rule& rule = kRules[static_cast<size_t>(which)]; !rule.take(options, optarg)) {
      std::fprintf(stderr, "qurn-guard: --%s takes %s, not \"%s\"\n", rule.name, rule.takes,
                   optarg);
      refuse();
    }
  }
  if (optind >= argc) {
    std::fputs("qurn-guard: there is no COMMAND to run\n", stderr);
    refuse();
  }
  options.command = argv + optind;
  return options;
}

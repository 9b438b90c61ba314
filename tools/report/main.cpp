// Prints the dead loops that logs tell of, each as a trace with a timeline of the silence before
// it.
#include <unistd.h>

#include <iostream>
#include <memory>
#include <stdexcept>
#include <vector>

#include "explainer.h"
#include "follow.h"
#include "journal.h"
#include "log_file.h"
#include "log_files.h"
#include "log_reader.h"
#include "options.h"
#include "output.h"

namespace qurn::report {
namespace {

Explainer explainerFor(const Options& options) {
  try {
    std::vector<std::string> directories = mapDirectoriesBeside(options.logs);
    if (options.journal && !options.journal->unit.empty()) {
      const std::string& unit = options.journal->unit;
      directories.push_back("/run/" + unit.substr(0, unit.rfind('.')));
    }
    return {{options.program, options.base, options.maps, directories}, complain};
  } catch (const std::runtime_error& mistake) {
    fail(mistake.what());
  }
}

std::unique_ptr<Output> outputFor(const Options& options) {
  if (options.collapsed) {
    return collapsedOutput(std::cout);
  }
  if (options.json) {
    return options.group    ? jsonGroupOutput(std::cout)
           : options.follow ? jsonLineOutput(std::cout)
                            : jsonOutput(std::cout);
  }
  const bool inColour = isatty(STDOUT_FILENO) == 1;
  return options.group ? textGroupOutput(std::cout, inColour) : textOutput(std::cout, inColour);
}

// False when some of it could not be read.
bool readLog(const LogParts& parts, bool isFollowed, LogReader& reader) {
  bool isWell = true;
  LogText text(reader);
  for (const std::string& part : parts) {
    LogFile file(part, text);
    if (isFollowed && file.isOpen() && &part == &parts.back()) {
      const auto read = [&file] {
        const bool isAlive = file.readWhatIsThere();
        file.followRotation();
        return isAlive;
      };
      follow({read, [&file] { return file.pipe(); }}, reader, std::cout);
    } else {
      file.readToEnd();
    }
    isWell = file.end() && isWell;
  }
  reader.finish();
  return isWell;
}

bool readLogs(const Options& options, const Sink& tell) {
  bool isWell = true;
  const std::vector<LogParts> logs = logsIn(options.logs);
  for (const LogParts& log : logs) {
    LogReader reader(tell);
    isWell = readLog(log, options.follow && &log == &logs.back(), reader) && isWell;
  }
  return isWell;
}

bool readJournal(const Options& options, const Sink& tell) {
  LogReader reader(tell);
  bool isWell = true;
  try {
    Journal journal(*options.journal, options.selection);
    const auto read = [&] {
      journal.read(reader);
      return true;
    };
    read();
    if (options.follow) {
      follow({read, [&journal] { return journal.descriptor(); }}, reader, std::cout);
    }
  } catch (const std::runtime_error& mistake) {
    complain(mistake.what());
    isWell = false;
  }
  reader.finish();
  return isWell;
}

int report(const Options& options) {
  Explainer explainer = explainerFor(options);
  const std::unique_ptr<Output> output = outputFor(options);
  int status = kNoneFound;
  const auto tell = [&](DeadLoop&& loop) {
    if (!options.selection.has(loop)) {
      return;
    }
    explainer.explain(loop);
    output->tell(loop);
    status = kFound;
  };
  const bool isWell = options.journal ? readJournal(options, tell) : readLogs(options, tell);
  output->end();
  if (!std::cout.flush() && !isReaderGone()) {
    fail("cannot write all of it");
  }
  return isWell ? status : kMistake;
}

}  // namespace
}  // namespace qurn::report

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  return qurn::report::report(qurn::report::parseOptions(argc, argv));
}

#include "log_files.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <set>
#include <string_view>
#include <tuple>

namespace qurn::report {
namespace {

namespace fs = std::filesystem;

struct Part {
  std::string path;
  std::string log;       // the path of the newest part
  int64_t age = 0;       // as a count of rotations; 0: by its date
  std::string date;      // "~", behind all dates, without one
  bool isInner = false;  // the number stands before the extension
};

constexpr std::string_view kDigits = "0123456789";
constexpr size_t kMostCountDigits = 5;  // what is longer is a date

std::string withoutPacking(const std::string& path) {
  constexpr std::array<std::string_view, 2> kPackings{".gz", ".zst"};
  const auto* packing = std::find_if(kPackings.begin(), kPackings.end(),
                                     [&](auto end) { return path.ends_with(end); });
  return path.substr(0, path.size() - (packing == kPackings.end() ? 0 : packing->size()));
}

bool isCount(std::string_view text) {
  return !text.empty() && text.size() <= kMostCountDigits &&
         text.find_first_not_of(kDigits) == std::string_view::npos;
}

// "20261126", "2026-11-26", or the seconds since 1970, and what follows.
bool isDate(std::string_view text) {
  const size_t digits = std::min(text.find_first_not_of(kDigits), text.size());
  return digits >= 8 || (digits == 4 && text.size() >= 10 && text[4] == '-' && text[7] == '-');
}

// "x.log.2", "x.log-20261126", "x.log.20261126-120000".
bool takeEnd(std::string_view name, Part& part) {
  const size_t last = name.find_last_not_of("0123456789-_.:T");
  const size_t mark = last == std::string_view::npos ? last : name.find_first_of(".-", last);
  if (mark == std::string_view::npos) {
    return false;
  }
  const std::string_view end = name.substr(mark + 1);
  if (name[mark] == '.' && isCount(end)) {
    part.age = std::stoll(std::string(end));
  } else if (isDate(end)) {
    part.date = end;
  } else {
    return false;
  }
  part.log = name.substr(0, mark);
  return true;
}

// "x.2.log".
void takeInner(const std::string& name, Part& part) {
  const size_t extension = name.rfind('.');
  const size_t mark = extension == 0 || extension == std::string::npos
                          ? std::string::npos
                          : name.rfind('.', extension - 1);
  if (mark == std::string::npos) {
    return;
  }
  const std::string number = name.substr(mark + 1, extension - mark - 1);
  if (isCount(number)) {
    part.age = std::stoll(number);
    part.log = name.substr(0, mark) + name.substr(extension);
    part.isInner = true;
  }
}

Part partOf(const std::string& path) {
  const std::string name = withoutPacking(path);
  Part part{path, name, 0, "~"};
  if (!takeEnd(name, part)) {
    takeInner(name, part);
  }
  return part;
}

// As the newest log often has one: "x.log" is "x-20261126.log".
bool isSecondName(const fs::directory_entry& entry) {
  std::error_code gone;
  const fs::path file = fs::canonical(entry.path(), gone);
  return entry.is_symlink(gone) && !file.filename().string().starts_with('.') &&
         file.parent_path() == fs::canonical(entry.path().parent_path(), gone);
}

// The files of a directory, those of a log that was written to later behind others'; what is no
// directory as it is.
void addFiles(const std::string& path, std::vector<std::string>& files) {
  std::error_code mistake;
  if (!fs::is_directory(path, mistake)) {
    files.push_back(path);
    return;
  }
  std::map<std::string, fs::file_time_type> written;  // by log
  std::vector<Part> found;
  for (fs::directory_iterator entry(path, mistake), end; !mistake && entry != end;
       entry.increment(mistake)) {
    std::error_code gone;
    if (entry->is_regular_file(gone) && !entry->path().filename().string().starts_with('.') &&
        !isSecondName(*entry)) {
      found.push_back(partOf(entry->path().string()));
      fs::file_time_type& last =
          written.try_emplace(found.back().log, fs::file_time_type::min()).first->second;
      last = std::max(last, entry->last_write_time(gone));
    }
  }
  if (mistake) {
    files.push_back(path);  // which then cannot be read either
  }
  std::sort(found.begin(), found.end(), [&](const Part& one, const Part& other) {
    return std::tie(written[one.log], one.path) < std::tie(written[other.log], other.path);
  });
  for (const Part& part : found) {
    files.push_back(part.path);
  }
}

}  // namespace

std::vector<LogParts> logsIn(const std::vector<std::string>& paths) {
  std::vector<std::string> files;
  for (const std::string& path : paths) {
    addFiles(path, files);
  }
  std::set<std::string> names;
  std::transform(files.begin(), files.end(), std::inserter(names, names.end()), withoutPacking);

  std::map<std::string, size_t> places;
  std::vector<std::vector<Part>> logs;
  for (const std::string& file : files) {
    Part part = partOf(file);
    // Without its log it may as well be a name of its own: of one of several instances.
    part.log = part.isInner && !names.contains(part.log) ? file : part.log;
    const size_t place = places.try_emplace(part.log, logs.size()).first->second;
    logs.resize(std::max(logs.size(), place + 1));
    logs[place].push_back(std::move(part));
  }
  std::vector<LogParts> all;
  for (std::vector<Part>& parts : logs) {
    std::stable_sort(parts.begin(), parts.end(), [](const Part& one, const Part& other) {
      return std::tuple(one.date, -one.age) < std::tuple(other.date, -other.age);
    });
    LogParts& log = all.emplace_back();
    for (const Part& part : parts) {
      if (log.empty() || log.back() != part.path) {
        log.push_back(part.path);
      }
    }
  }
  return all;
}

}  // namespace qurn::report

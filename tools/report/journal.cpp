#include "journal.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "message_search.h"

namespace qurn::report {
namespace {

constexpr const char* kBootField = "_BOOT_ID";
// What belongs to a dead loop that is reported within the time that was chosen.
constexpr std::chrono::hours kMostBefore{24};
constexpr std::chrono::hours kMostBehind{1};

int check(int result, const std::string& what) {
  if (result < 0) {
    throw std::runtime_error("cannot read " + what + ": " + std::strerror(-result));
  }
  return result;
}

uint64_t microsecondsOf(Time time) {
  return static_cast<uint64_t>(std::max<int64_t>(0, time.time_since_epoch().count()));
}

sd_journal* opened(const std::string& directory) {
  sd_journal* journal = nullptr;
  if (directory.empty()) {
    check(sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY), "the journal");
  } else {
    check(sd_journal_open_directory(&journal, directory.c_str(), 0), "the journal in " + directory);
  }
  return journal;
}

std::string_view valueOf(sd_journal* journal, const char* field) {
  const void* data = nullptr;
  size_t length = 0;
  if (sd_journal_get_data(journal, field, &data, &length) < 0) {
    return {};
  }
  return std::string_view(static_cast<const char*>(data), length).substr(std::strlen(field) + 1);
}

std::string thisBoot() {
  sd_id128_t id{};
  check(sd_id128_get_boot(&id), "this boot's id");
  std::array<char, SD_ID128_STRING_MAX> text{};
  return sd_id128_to_string(id, text.data());
}

bool isId(const std::string& text) {
  return text.size() == 32 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

Journal::Journal(const JournalChoice& choice, const Selection& selection)
    : journal_(opened(choice.directory), &sd_journal_close) {
  check(sd_journal_seek_tail(journal_.get()), "the journal");
  if (check(sd_journal_previous(journal_.get()), "the journal") == 0) {
    throw std::runtime_error("there is no journal, or none that you may read");
  }
  chooseBoot(choice);
  if (!choice.unit.empty()) {
    chooseUnit(choice.unit);
  }
  chooseKinds();
  check(selection.since ? sd_journal_seek_realtime_usec(
                              journal_.get(), microsecondsOf(*selection.since - kMostBefore))
                        : sd_journal_seek_head(journal_.get()),
        "the journal's beginning");
  end_ = selection.until ? microsecondsOf(*selection.until + kMostBehind) : end_;
  check(descriptor(), "the journal's growth");
}

// ---- matches: of one field any is enough, what stands in between separates fields

void Journal::match(const std::string& field, const std::string& value) {
  check(sd_journal_add_match(journal_.get(), (field + "=" + value).c_str(), 0), "the journal");
}

void Journal::chooseUnit(const std::string& unit) {
  const std::string name = unit + (unit.find('.') == std::string::npos ? ".service" : "");
  check(sd_journal_add_conjunction(journal_.get()), "the journal");
  match("_SYSTEMD_UNIT", name);
  check(sd_journal_add_disjunction(journal_.get()), "the journal");
  match("_SYSTEMD_USER_UNIT", name);
}

// The kernel's messages are none of ours.
void Journal::chooseKinds() {
  check(sd_journal_add_conjunction(journal_.get()), "the journal");
  for (const char* kind : {"journal", "stdout", "syslog"}) {
    match("_TRANSPORT", kind);
  }
}

// ---- boots

void Journal::chooseBoot(const JournalChoice& choice) {
  if (choice.boot == "all" || (choice.boot.empty() && !choice.directory.empty())) {
    return;
  }
  std::string boot = choice.boot;
  if (!isId(boot)) {
    int before = 0;
    const char* end = boot.data() + boot.size();
    const auto [parsed, mistake] = std::from_chars(boot.data(), end, before);
    if (!boot.empty() && (mistake != std::errc() || parsed != end || before > 0)) {
      throw std::runtime_error("no boot: " + boot);
    }
    boot = before == 0 && choice.directory.empty() ? thisBoot() : bootBefore(-before);
  }
  match(kBootField, boot);
}

std::string Journal::bootBefore(int count) {
  sd_journal* journal = journal_.get();
  check(sd_journal_seek_tail(journal), "the journal's end");
  for (; sd_journal_previous(journal) > 0; --count) {
    std::string boot(valueOf(journal, kBootField));
    if (count == 0) {
      return boot;
    }
    // On to its first entry, so that the one before it is of another boot.
    match(kBootField, boot);
    check(sd_journal_seek_head(journal), "the journal's beginning");
    sd_journal_next(journal);
    char* cursor = nullptr;
    check(sd_journal_get_cursor(journal, &cursor), "the journal");
    sd_journal_flush_matches(journal);
    const int found = sd_journal_seek_cursor(journal, cursor);
    std::free(cursor);
    check(found, "the journal");
    sd_journal_next(journal);
  }
  throw std::runtime_error("the journal does not reach back to that boot");
}

// ---- entries

void Journal::read(LogReader& reader) {
  sd_journal_process(journal_.get());
  while (check(sd_journal_next(journal_.get()), "the journal") > 0) {
    uint64_t at = 0;
    if (sd_journal_get_realtime_usec(journal_.get(), &at) < 0 || at > end_) {
      continue;
    }
    const std::string_view message = valueOf(journal_.get(), "MESSAGE");
    if (findSign(message, 0) < message.size()) {
      reader.takeRecord(entry(at));
    }
  }
}

JournalRecord Journal::entry(uint64_t at) {
  JournalRecord record;
  record.take("__REALTIME_TIMESTAMP", std::to_string(at));
  const void* data = nullptr;
  size_t length = 0;
  sd_journal_restart_data(journal_.get());
  while (sd_journal_enumerate_available_data(journal_.get(), &data, &length) > 0) {
    const std::string_view field(static_cast<const char*>(data), length);
    const size_t equals = field.find('=');
    record.take(field.substr(0, equals), field.substr(equals + 1));
  }
  return record;
}

}  // namespace qurn::report

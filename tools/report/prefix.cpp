#include "prefix.h"

#include <algorithm>
#include <cctype>

#include "scanner.h"

namespace qurn::report {
namespace {

constexpr std::string_view kDigits = "0123456789";
constexpr size_t kMostNameBytes = 15;     // of a thread's name
constexpr size_t kMostEscapedBytes = 60;  // of one that is all control characters

// ---- times

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool fits(std::string_view text, std::string_view pattern) {
  return text.size() >= pattern.size() &&
         std::equal(pattern.begin(), pattern.end(), text.begin(), [](char wanted, char c) {
           switch (wanted) {
             case '0':
               return isDigit(c);
             case 'T':
               return c == 'T' || c == ' ';
             case '_':  // a day's first digit may be left out
               return isDigit(c) || c == ' ';
             case 'A':
               return c >= 'A' && c <= 'Z';
             case 'a':
               return c >= 'a' && c <= 'z';
             default:
               return c == wanted;
           }
         });
}

// The first of the patterns that the text fits, as a length.
template <size_t count>
size_t lengthOf(std::string_view text, const std::array<std::string_view, count>& patterns) {
  const auto* found = std::find_if(patterns.begin(), patterns.end(),
                                   [&](std::string_view pattern) { return fits(text, pattern); });
  return found == patterns.end() ? 0 : found->size();
}

// The length of the time that the text begins with, or 0.
size_t timeLength(std::string_view text) {
  constexpr std::array<std::string_view, 2> kDates{"0000-00-00T00:00:00", "Aaa _0 00:00:00"};
  constexpr std::array<std::string_view, 3> kZones{"+00:00", "+0000", "+00"};
  constexpr std::array<std::string_view, 3> kWesternZones{"-00:00", "-0000", "-00"};
  size_t end = lengthOf(text, kDates);
  if (end == 0) {
    return 0;
  }
  if (end + 1 < text.size() && (text[end] == '.' || text[end] == ',') && isDigit(text[end + 1])) {
    end = std::min(text.find_first_not_of(kDigits, end + 1), text.size());
  }
  if (text.substr(end).starts_with('Z')) {
    return end + 1;
  }
  return end +
         std::max(lengthOf(text.substr(end), kZones), lengthOf(text.substr(end), kWesternZones));
}

// ---- the log's own head: "[NAME:ID] MODULE UNIT:LINE ", or "[ID] ..."

bool endsWithId(std::string_view text, size_t& nameLength) {
  const size_t before = text.find_last_not_of(kDigits);
  if (text.empty() || before == text.size() - 1 ||
      (before != std::string_view::npos && text[before] != ':')) {
    return false;
  }
  nameLength = before == std::string_view::npos ? 0 : before;
  return true;
}

// "MODULE UNIT:LINE " as a length, or 0.
size_t placeLength(std::string_view text) {
  Scanner rest(text);
  unsigned number = 0;
  std::string_view unit;
  if (!rest.number(number) || !rest.skip(" ") || !rest.textBefore(" ", unit)) {
    return 0;
  }
  size_t nameLength = 0;
  return endsWithId(unit, nameLength) && nameLength > 0 ? text.size() - rest.text().size() : 0;
}

struct Head {
  size_t writerLength = 0;  // with its brackets
  size_t length = 0;        // 0: it is none
};

// A name may hold what looks like the end of a head, so the last one counts that leaves a name of
// possible length.
Head headOf(std::string_view text) {
  constexpr size_t kMostIdBytes = 12;
  Head head;
  if (!text.starts_with('[')) {
    return head;
  }
  const std::string_view start = text.substr(0, kMostEscapedBytes + kMostIdBytes);
  for (size_t end = start.find("] "); end != std::string_view::npos;
       end = start.find("] ", end + 1)) {
    const std::string_view inside = start.substr(1, end - 1);
    size_t nameLength = 0;
    if (!endsWithId(inside, nameLength) ||
        (nameLength > kMostNameBytes && inside.find('\\') == std::string_view::npos)) {
      continue;
    }
    if (const size_t place = placeLength(text.substr(end + 2)); place > 0) {
      head = {end + 1, end + 2 + place};
    }
  }
  return head;
}

// ---- parts of a prefix, each taken from the front of the rest

bool takeTime(Scanner& rest, LogLine& line) {
  const size_t length = timeLength(rest.text());
  line.at = length > 0 ? rest.text().substr(0, length) : line.at;
  rest.skip(length);
  return length > 0;
}

bool takeHead(Scanner& rest, LogLine& line) {
  const size_t space = rest.text().find(' ');
  if (space == std::string_view::npos) {
    return false;
  }
  const Head head = headOf(rest.text().substr(space + 1));
  if (head.length > 0) {
    line.addWriter(rest.text().substr(space + 1, head.writerLength));
    line.hasHead = true;
    rest.skip(space + 1 + head.length);
  }
  return head.length > 0;
}

// "NAME  | " of docker compose.
bool takeService(Scanner& rest, LogLine& line) {
  const std::string_view text = rest.text();
  const size_t space = text.find(' ');
  const size_t bar = text.find_first_not_of(' ', space);
  if (!line.at.empty() || line.writerPartCount > 0 || space == 0 ||
      space == std::string_view::npos ||
      !text.substr(std::min(bar, text.size())).starts_with("| ")) {
    return false;
  }
  line.addWriter(text.substr(0, space));
  rest.skip(bar + 2);
  return true;
}

bool takePod(Scanner& rest, LogLine& line) {
  const size_t end = rest.text().find("] ");
  if (!rest.text().starts_with("[pod/") || end == std::string_view::npos) {
    return false;
  }
  line.addWriter(rest.text().substr(0, end + 1));
  rest.skip(end + 2);
  return true;
}

// As a container runtime keeps a line: its stream, and whether it is a whole line or a part of one.
bool takeStream(Scanner& rest, LogLine& line) {
  constexpr std::array<std::string_view, 4> kStreams{"stderr F ", "stdout F ", "stderr P ",
                                                     "stdout P "};
  const std::string_view text = rest.text();
  return std::any_of(kStreams.begin(), kStreams.end(), [&](std::string_view stream) {
    if (!rest.skip(stream)) {
      return false;
    }
    line.addWriter(text.substr(0, stream.find(' ')));
    return true;
  });
}

// Of syslog: "<N>", or "<N>1 " in its newer form. It tells how grave a line is, not whose it is.
bool skipPriority(Scanner& rest, LogLine& line) {
  Scanner ahead = rest;
  unsigned number = 0;
  if (!ahead.skip("<") || !ahead.number(number) || !ahead.skip(">")) {
    return false;
  }
  line.hasVersion = ahead.skip("1 ");
  rest = ahead;
  return true;
}

// "HOST PROGRAM ID KIND DATA " of syslog's newer form. Kind and data are of the line alone.
bool takeColumns(Scanner& rest, LogLine& line) {
  for (int i = 0; i < 3; ++i) {
    std::string_view column;
    if (!rest.textBefore(" ", column)) {
      return false;
    }
    line.addWriter(column);
  }
  std::string_view kind;
  if (!rest.textBefore(" ", kind)) {
    return false;
  }
  std::string_view data;
  const bool isWhole =
      rest.skip("- ") || (rest.text().starts_with('[') && rest.textBefore("] ", data));
  rest.skip("\xEF\xBB\xBF");  // which may tell that the message is UTF-8
  return isWhole;
}

// The length of "HOST PROGRAM[ID]:" or "HOST PROGRAM:", where the host may be left out, or 0.
size_t tagLength(std::string_view text) {
  const size_t bracket = text.find('[');
  if (bracket != std::string_view::npos && bracket > 0) {
    const size_t end = std::min(text.find_first_not_of(kDigits, bracket + 1), text.size());
    if (end > bracket + 1 && text.substr(end).starts_with("]: ")) {
      return end + 2;
    }
  }
  const size_t host = text.find(' ');
  if (host == std::string_view::npos) {
    return 0;
  }
  const size_t end = text[host - (host > 0 ? 1 : 0)] == ':' ? host : text.find(' ', host + 1);
  return end != std::string_view::npos && text[end - (end > 0 ? 1 : 0)] == ':' ? end : 0;
}

bool takeTag(Scanner& rest, LogLine& line) {
  if (line.at.empty() || line.hasTag) {
    return false;
  }
  line.hasTag = true;
  if (line.hasVersion) {
    return takeColumns(rest, line);
  }
  const size_t length = tagLength(rest.text());
  line.addWriter(rest.text().substr(0, length));
  rest.skip(length);
  return length > 0;
}

// Who knows what stood first; the log's own head can still be told.
void takeUnknown(Scanner& rest, LogLine& line) {
  const std::string_view text = rest.text();
  for (size_t at = text.find('['); at != std::string_view::npos; at = text.find('[', at + 1)) {
    const Head head = headOf(text.substr(at));
    if (head.length == 0) {
      continue;
    }
    // Without the level, the word before.
    std::string_view before = text.substr(0, at);
    before = before.substr(0, before.find_last_not_of(' ') + 1);
    before = before.substr(0, before.rfind(' ') + 1);
    size_t from = 0;
    for (size_t i = 0; i < before.size(); ++i) {
      if (const size_t length = timeLength(before.substr(i)); length > 0) {
        line.at = before.substr(i, length);
        line.addWriter(before.substr(from, i - from));
        from = i + length;
        i = from - 1;
      }
    }
    line.addWriter(before.substr(from));
    line.addWriter(text.substr(at, head.writerLength));
    rest.skip(at + head.length);
    return;
  }
}

constexpr std::array kParts{takeTime,   takeHead,     takeService, takePod,
                            takeStream, skipPriority, takeTag};

}  // namespace

void LogLine::addWriter(std::string_view part) {
  // Bytes that were torn from something else name nobody.
  const bool isName =
      std::any_of(part.begin(), part.end(), [](unsigned char c) { return std::isalnum(c) != 0; });
  if (isName && writerPartCount < writerParts.size()) {
    writerParts.at(writerPartCount++) = part;
  }
}

std::string LogLine::writer() const {
  std::string all;
  for (size_t i = 0; i < writerPartCount; ++i) {
    all.append(writerParts.at(i)).push_back('\n');
  }
  return all;
}

LogLine takeApart(std::string_view text, bool (*beginsMessage)(std::string_view)) {
  LogLine line;
  Scanner rest(text);
  const auto takePart = [&] {
    rest.skip(std::min(rest.text().find_first_not_of(' '), rest.text().size()));
    return !line.hasHead && !beginsMessage(rest.text()) &&
           std::any_of(kParts.begin(), kParts.end(), [&](auto* take) { return take(rest, line); });
  };
  while (takePart()) {
  }
  if (!line.hasHead && !beginsMessage(rest.text())) {
    takeUnknown(rest, line);
  }
  line.message = rest.text();
  return line;
}

}  // namespace qurn::report

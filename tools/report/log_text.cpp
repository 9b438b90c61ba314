#include "log_text.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "message_search.h"

namespace qurn::report {
namespace {

constexpr size_t kLengthBytes = 8;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // some begin a file of UTF-8 so
constexpr uint64_t kMostBytes = 1 << 20;  // nothing that the library writes is as long

// The lowest byte comes first.
uint64_t lengthIn(std::string_view bytes) {
  uint64_t length = 0;
  std::for_each(bytes.rbegin(), bytes.rend(),
                [&](char byte) { length = length << 8 | static_cast<unsigned char>(byte); });
  return length;
}

// Of the lines that are no message's for sure, at the block's beginning. Its last line may go on.
size_t lengthOfOthers(std::string_view block) {
  const void* end = memrchr(block.data(), '\n', findSign(block, 0));
  return end == nullptr ? 0 : static_cast<size_t>(static_cast<const char*>(end) - block.data()) + 1;
}

// Of the rest of a record, where all of it is in the block, in fields of one line each, and none is
// a message for sure; else 0.
size_t lengthOfOtherFields(std::string_view block) {
  const size_t sign = findSign(block, 0);
  size_t from = 0;
  for (size_t end = 0; (end = block.find('\n', from)) < sign; from = end + 1) {
    if (end == from) {
      return end + 1;
    }
    if (block.substr(from, end - from).find('=') == std::string_view::npos) {
      return 0;
    }
  }
  return 0;
}

}  // namespace

void LogText::take(std::string_view block) {
  while (!block.empty()) {
    if (kept_.empty()) {
      block.remove_prefix(passOver(block));
    }
    const size_t length = lengthOfRest(block);
    const std::string_view piece = block.substr(0, length);
    if (kept_.empty() && piece.size() == length) {
      step(piece);
    } else {
      kept_.append(piece.substr(0, kMostBytes + 1 - std::min(kMostBytes + 1, kept_.size())));
      if (piece.size() == length) {
        step(std::exchange(kept_, {}));
      }
    }
    block.remove_prefix(piece.size());
  }
}

// Most of a log need not be taken apart. How much of the block's beginning that is.
size_t LogText::passOver(std::string_view block) {
  if (expected_ == Expected::kLine) {
    return lengthOfOthers(block);
  }
  if (expected_ != Expected::kField || !record_.message.empty()) {
    return 0;
  }
  const size_t length = lengthOfOtherFields(block);
  if (length > 0) {
    record_ = {};
    expected_ = Expected::kLine;
  }
  return length;
}

void LogText::end() {
  if (!kept_.empty() && expected_ != Expected::kLength) {
    step(std::exchange(kept_, {}));
  }
  kept_.clear();
  if (expected_ != Expected::kLine) {
    endRecord();
  }
}

// Of what is expected and begins, or goes on, in the block; beyond the block when it does not end
// there.
size_t LogText::lengthOfRest(std::string_view block) const {
  switch (expected_) {
    case Expected::kLength:
      return kLengthBytes - kept_.size();
    case Expected::kValue:
      return valueLength_ + 1 - kept_.size();
    default:
      const size_t end = block.find('\n');
      return end == std::string_view::npos ? end : end + 1;
  }
}

// Takes all of what was expected, with the line's end behind it.
void LogText::step(std::string_view piece) {
  if (expected_ == Expected::kLength) {
    valueLength_ = lengthIn(piece);
    expected_ = Expected::kValue;
    if (valueLength_ > kMostBytes) {
      endRecord();  // this is no record, or one torn apart; what follows may be a log's lines
    }
    return;
  }
  if (expected_ == Expected::kValue) {
    record_.take(field_, piece.substr(0, valueLength_));
    expected_ = Expected::kField;
    return;
  }
  piece.remove_suffix(piece.ends_with('\n') ? 1 : 0);
  if (expected_ == Expected::kField) {
    takeField(piece);
  } else if (beginsExportedRecord(piece)) {
    expected_ = Expected::kField;
  } else {
    piece.remove_prefix(piece.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0);
    reader_.takeLine(piece);
  }
}

// "NAME=VALUE", or only the name where the value may be of several lines.
void LogText::takeField(std::string_view line) {
  const size_t equals = line.find('=');
  if (line.empty()) {
    endRecord();
  } else if (equals != std::string_view::npos) {
    record_.take(line.substr(0, equals), line.substr(equals + 1));
  } else {
    field_ = line;
    expected_ = Expected::kLength;
  }
}

void LogText::endRecord() {
  reader_.takeRecord(std::exchange(record_, {}));
  expected_ = Expected::kLine;
}

}  // namespace qurn::report

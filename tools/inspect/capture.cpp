#include "capture.h"

#include <qurnadapt/capture.h>
#include <qurnadapt/monitor.h>

#include <algorithm>
#include <cstring>

#include "registers.h"

namespace qurn::inspect {
namespace {

uint64_t addressOf(const void* pointer) { return reinterpret_cast<uint64_t>(pointer); }

// The thread of the last third-threshold event, if it is still watched.
pid_t capturedThread(const Target& target, const inspection::Record& record) {
  const auto& monitor = record.monitor;
  const uint64_t control = addressOf(monitor.address);
  const uint64_t slot = target.get<uint64_t>(control + monitor.fatalSlot).value_or(0);
  const auto info = slot >= monitor.nodeCount
                        ? std::nullopt
                        : target.get<FrameMonitorTaskInfo>(control + monitor.nodes +
                                                           slot * monitor.nodeBytes + monitor.info);
  return info && info->ucValid != 0 ? static_cast<pid_t>(info->uiTid) : 0;
}

std::vector<Word> stackWords(const FrameDeadloopDumpInfo& dump, uint32_t length,
                             const Symbols& symbols) {
  std::vector<Word> words;
  const size_t bytes = std::min<size_t>(length, sizeof(dump.stackBytes));
  for (size_t at = 0; at + sizeof(uint64_t) <= bytes; at += sizeof(uint64_t)) {
    Word word{dump.stackDumpStart + at, 0, {}};
    memcpy(&word.value, dump.stackBytes + at, sizeof(word.value));
    word.code = demangled(symbols.nameOf(word.value));
    words.push_back(std::move(word));
  }
  return words;
}

}  // namespace

std::optional<Capture> readCapture(const Target& target, const Library& library,
                                   const Symbols& symbols) {
  const inspection::Record& record = library.record;
  const uint64_t control = addressOf(record.capture.address);
  const auto dumpAt = target.get<uint64_t>(control + record.capture.dumpInfo);
  const auto stackAt = target.get<uint64_t>(control + record.capture.callStack);
  const auto depth = target.get<uint32_t>(control + record.capture.depth);
  const auto length = target.get<uint32_t>(control + record.capture.stackLength);
  if (!dumpAt || !stackAt || !depth || !length) {
    return std::nullopt;
  }
  const auto dump = target.get<FrameDeadloopDumpInfo>(*dumpAt);
  const auto addresses = target.get<std::array<uint64_t, FRAME_CALL_STACK_DEPTH>>(*stackAt);
  const bool isEmpty = !dump || std::all_of(std::begin(dump->registers), std::end(dump->registers),
                                            [](uint64_t word) { return word == 0; });
  if (isEmpty || !addresses) {
    return std::nullopt;
  }
  Capture capture;
  capture.tid = capturedThread(target, record);
  capture.at.assign(dump->captureTime, strnlen(dump->captureTime, sizeof(dump->captureTime)));
  for (uint32_t i = 0; i < std::min(*depth, FRAME_CALL_STACK_DEPTH); ++i) {
    symbols.explain((*addresses)[i], i > 0, capture.frames);
  }
  capture.registers = namedRegisters(dump->registers);
  capture.stack = stackWords(*dump, *length, symbols);
  return capture;
}

}  // namespace qurn::inspect

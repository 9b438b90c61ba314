// The inspector: a core, or a process whose memory and kernel say something else at each look.
// Either is told without harm to the terminal, as JSON, and in bounded time.
#include <nlohmann/json.hpp>
#include <sstream>

#include "../../tools/inspect/capture.h"
#include "../../tools/inspect/core_target.h"
#include "../../tools/inspect/inspection.h"
#include "../../tools/inspect/output.h"
#include "../../tools/inspect/stacks.h"
#include "fuzz_target.h"

namespace {

using namespace qurn::inspect;

class Changing final : public Target {
 public:
  explicit Changing(Bytes bytes) : bytes_(bytes) {}

  // A page holds the library's record, as far as it is known to be one.
  bool read(uint64_t address, void* to, size_t bytes) const override {
    auto* all = static_cast<char*>(to);
    for (size_t i = 0; i < bytes; ++i) {
      all[i] = static_cast<char>(bytes_.number(1));
    }
    if (address == kLibrary && bytes >= 4096) {
      const uint32_t known[] = {qurn::inspection::kVersion, sizeof(qurn::inspection::Record)};
      memcpy(all, qurn::inspection::kMagic.data(), qurn::inspection::kMagic.size());
      memcpy(all + qurn::inspection::kMagic.size(), known, sizeof(known));
    }
    return bytes_.number(1) != 1;
  }
  std::vector<Mapping> mappings() const override {
    return {{kLibrary, kLibrary + 4096, true, "/libqurnadapt.so\033"}};
  }
  std::vector<pid_t> threads() const override {
    std::vector<pid_t> all(bytes_.number(1));
    for (pid_t& tid : all) {
      tid = static_cast<pid_t>(bytes_.number(1));
    }
    return all;
  }
  std::optional<Call> callOf(pid_t /*tid*/) const override {
    Call call{bytes_.number(1) == 1, static_cast<long>(bytes_.number(1)), {}, wide(), 0};
    for (uint64_t& argument : call.arguments) {
      argument = wide();
    }
    return bytes_.number(1) == 1 ? std::nullopt : std::optional(call);
  }
  std::optional<Detail> detailOf(pid_t /*tid*/) const override {
    Detail detail;
    detail.name = detail.kernelPlace = "\033\x9B\xC2\x9B";
    detail.state = static_cast<char>(bytes_.number(1));
    detail.runNs = bytes_.number(4);
    detail.delayNs = bytes_.number(4);
    return bytes_.number(1) == 1 ? std::nullopt : std::optional(detail);
  }
  std::string descriptor(int fd) const override { return std::string(2, static_cast<char>(fd)); }
  std::string kernelStack(pid_t /*tid*/) const override { return {}; }
  pid_t pid() const override { return 1; }
  std::string name() const override { return "\x7F\"\n"; }
  bool isCore() const override { return false; }
  std::optional<timespec> now() const override {
    return timespec{static_cast<time_t>(wide()), static_cast<long>(wide())};
  }
  int64_t upMs() const override { return static_cast<int64_t>(wide()); }

 private:
  static constexpr uint64_t kLibrary = 0x10000;
  uint64_t wide() const { return bytes_.number(4) | uint64_t{bytes_.number(4)} << 32U; }

  mutable Bytes bytes_;
};

void expectHarmless(const std::string& text) {
  assert(std::none_of(text.begin(), text.end(),
                      [](unsigned char c) { return (c < ' ' && c != '\n') || c == 0x7F; }));
}

void write(const Snapshot& snapshot) {
  std::ostringstream text;
  std::ostringstream metrics;
  std::ostringstream json;
  writeText(text, snapshot);
  writeMetrics(metrics, snapshot);
  writeJson(json, snapshot);
  expectHarmless(text.str());
  expectHarmless(metrics.str());
  const auto all = nlohmann::json::parse(json.str());
  assert(all["watched"].size() == snapshot.watched.size());
  nlohmann::json(metrics.str()).dump();  // throws where it is no UTF-8
  for (const auto& cycle : snapshot.deadlocks) {
    assert(!cycle.empty() && *std::min_element(cycle.begin(), cycle.end()) == cycle[0]);
  }
}

void tryCore(const std::vector<char>& content) {
  const CoreTarget core(fileWith(content));
  const Library library = findLibrary(core);
  Symbols symbols(core, {}, Symbols::Depth::kExported);
  Snapshot snapshot = inspect(
      core, library, [&](uint64_t address) { return symbols.nameOf(address); },
      std::chrono::milliseconds(0));
  snapshot.stacks = stacksOf(core, core.threads(), snapshot, symbols);
  snapshot.capture = readCapture(core, library, symbols);
  write(snapshot);
}

void tryProcess(Bytes bytes) {
  const Changing process(bytes);
  constexpr const char* kNames[] = {"", "pthread_mutex_lock", "__pthread_rwlock_rdlock", "malloc"};
  write(inspect(
      process, findLibrary(process), [&](uint64_t address) { return kNames[address % 4]; },
      std::chrono::milliseconds(0)));
}

}  // namespace

void tryInput(Bytes bytes) {
  try {
    bytes.number(1) == 'c' ? tryCore(bytes.text()) : tryProcess(bytes);
  } catch (const Mistake& mistake) {
    assert(mistake.what()[0] != '\0');
  }
}

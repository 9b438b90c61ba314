// Symbol lines, as the system library might write them, into names of any capacity.
#include <execinfo.h>
#include <qurnadapt/report.h>

#include "fuzz_target.h"

namespace {
std::string g_line;
}

extern "C" char** backtrace_symbols(void* const* /*addresses*/, int count) noexcept {
  const size_t heads = sizeof(char*) * static_cast<size_t>(count);
  auto** lines = static_cast<char**>(std::malloc(heads + g_line.size() + 1));
  auto* text = reinterpret_cast<char*>(lines) + heads;
  std::memcpy(text, g_line.c_str(), g_line.size() + 1);
  for (int i = 0; i < count; ++i) {
    lines[i] = text;
  }
  return lines;
}

void tryInput(Bytes bytes) {
  const uint32_t capacity = bytes.number(2) % 2000 + 1;
  const uint32_t depth = bytes.number(1) % 8 + 1;
  g_line = bytes.string();
  std::vector<char> dest(capacity, 'x');
  void* addresses[8] = {};
  assert(FrameFuncNameGetByAddr(addresses, depth, dest.data(), capacity) == QURN_OK);
  assert(strnlen(dest.data(), capacity) < capacity);
}

// The name part of one line of backtrace_symbols, "module(function+offset) [address]". Every
// destination holds at least FRAME_SYMBOL_NAME_LEN bytes.
#pragma once

#include <cstdint>

// The text in the first parentheses when it starts like a name, else what FrameGetAddrFromSymbolStr
// finds.
void FrameGetFuncFromSymbolStr(char* dest, const char* line) noexcept;

// The text in the first square brackets of the first `length` characters, or nothing.
void FrameGetAddrFromSymbolStr(char* dest, const char* line, uint32_t length) noexcept;

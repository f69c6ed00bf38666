// Wide kernel text to and from UTF-8. libc's wide functions expect 32-bit characters and are not usable here.
#pragma once

#include <ntddk.h>

#include <string>
#include <string_view>
#include <vector>

namespace kernel
{

// A lone surrogate becomes U+FFFD.
std::string ToUtf8(const WCHAR* text, size_t units);
std::string ToUtf8(const UNICODE_STRING& text);
std::string ToUtf8(const WCHAR* text); // null reads as empty

// 16-bit units with a terminating zero behind them. Malformed bytes become U+FFFD.
std::vector<WCHAR> ToWide(std::string_view text);

// The counted string over ToWide's result, which must outlive it.
UNICODE_STRING Counted(std::vector<WCHAR>& wide);

// Names of objects, registry keys and values compare without case; only ASCII letters are folded.
std::string FoldCase(std::string_view text);

} // namespace kernel

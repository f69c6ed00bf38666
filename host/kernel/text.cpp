#include "text.h"

#include <cstdint>

namespace kernel
{
namespace
{

constexpr uint32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, uint32_t code)
{
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | code >> 6);
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | code >> 12);
        out += static_cast<char>(0x80 | (code >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | code >> 18);
        out += static_cast<char>(0x80 | (code >> 12 & 0x3F));
        out += static_cast<char>(0x80 | (code >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// Decodes the character at `at` and moves past it; a malformed byte counts as one character.
uint32_t NextCodePoint(std::string_view text, size_t& at)
{
    const auto lead = static_cast<unsigned char>(text[at++]);
    if (lead < 0x80) {
        return lead;
    }
    const size_t following = lead >= 0xF0 && lead < 0xF5 ? 3 : lead >= 0xE0 ? 2 : 1;
    if (lead < 0xC2 || lead >= 0xF5 || text.size() - at < following) {
        return kReplacement;
    }
    uint32_t code = lead & (0x3F >> following);
    for (size_t i = 0; i < following; ++i) {
        const auto byte = static_cast<unsigned char>(text[at + i]);
        if ((byte & 0xC0) != 0x80) {
            return kReplacement;
        }
        code = code << 6 | (byte & 0x3F);
    }
    constexpr uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[following] || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) {
        return kReplacement;
    }
    at += following;
    return code;
}

} // namespace

std::string ToUtf8(const WCHAR* text, size_t units)
{
    std::string out;
    out.reserve(units);
    for (size_t i = 0; i < units; ++i) {
        uint32_t code = static_cast<uint16_t>(text[i]);
        if (code >= 0xD800 && code < 0xE000) {
            const uint32_t low = code < 0xDC00 && i + 1 < units ? static_cast<uint16_t>(text[i + 1]) : 0;
            if (low >= 0xDC00 && low < 0xE000) {
                code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            } else {
                code = kReplacement;
            }
        }
        AppendUtf8(out, code);
    }
    return out;
}

std::string ToUtf8(const UNICODE_STRING& text)
{
    return text.Buffer == nullptr ? std::string() : ToUtf8(text.Buffer, text.Length / sizeof(WCHAR));
}

std::string ToUtf8(const WCHAR* text)
{
    size_t units = 0;
    while (text != nullptr && text[units] != 0) {
        ++units;
    }
    return ToUtf8(text, units);
}

std::vector<WCHAR> ToWide(std::string_view text)
{
    std::vector<WCHAR> wide;
    wide.reserve(text.size() + 1);
    for (size_t at = 0; at < text.size();) {
        const uint32_t code = NextCodePoint(text, at);
        if (code < 0x10000) {
            wide.push_back(static_cast<WCHAR>(code));
        } else {
            wide.push_back(static_cast<WCHAR>(0xD800 + ((code - 0x10000) >> 10)));
            wide.push_back(static_cast<WCHAR>(0xDC00 + ((code - 0x10000) & 0x3FF)));
        }
    }
    wide.push_back(0);
    return wide;
}

UNICODE_STRING Counted(std::vector<WCHAR>& wide)
{
    UNICODE_STRING counted;
    counted.Buffer = wide.data();
    counted.MaximumLength = static_cast<USHORT>(wide.size() * sizeof(WCHAR));
    counted.Length = static_cast<USHORT>(counted.MaximumLength - sizeof(WCHAR));
    return counted;
}

std::string FoldCase(std::string_view text)
{
    std::string folded(text);
    for (char& c : folded) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return folded;
}

} // namespace kernel

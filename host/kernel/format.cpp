// Formatted text by the Windows rules: "l" is 32 bits, pointers are sixteen upper-case digits, and there is
// wide and counted text. Wide text comes out as UTF-8. Floating point is not available in the kernel.
#include <ntddk.h>

#include <cstdint>

namespace
{

class Output
{
  public:
    Output(char* buffer, size_t capacity) : buffer_(buffer), capacity_(capacity) {}

    void Put(char c)
    {
        if (length_ < capacity_)
            buffer_[length_] = c;
        length_++;
    }
    void Fill(char c, int count)
    {
        for (; count > 0; count--)
            Put(c);
    }
    void Put(const char* text, size_t length)
    {
        for (size_t i = 0; i < length; i++)
            Put(text[i]);
    }
    size_t Length() const { return length_; }

  private:
    char* buffer_;
    size_t capacity_;
    size_t length_ = 0; // of the whole text, also what did not fit
};

enum class Size { Short, Char, Int, Long, LongLong, Wide };

struct Conversion {
    bool left = false, plus = false, space = false, alternate = false, zero = false;
    int width = 0;
    int precision = -1;
    Size size = Size::Int;
    char type = 0;
};

struct ArgumentList {
    va_list list;
};

int ReadNumber(const char*& at, ArgumentList& arguments)
{
    if (*at == '*') {
        at++;
        return va_arg(arguments.list, int);
    }
    int number = 0;
    for (; *at >= '0' && *at <= '9'; at++)
        if (number < 100'000'000)
            number = number * 10 + (*at - '0');
    return number;
}

Size ReadSize(const char*& at)
{
    switch (*at) {
    case 'h':
        at++;
        if (*at != 'h')
            return Size::Short;
        at++;
        return Size::Char;
    case 'l':
        at++;
        if (*at != 'l')
            return Size::Long;
        at++;
        return Size::LongLong;
    case 'I':
        at++;
        if (at[0] == '3' && at[1] == '2') {
            at += 2;
            return Size::Int;
        }
        if (at[0] == '6' && at[1] == '4')
            at += 2;
        return Size::LongLong; // a plain I is as wide as a pointer
    case 'w':
        at++;
        return Size::Wide;
    case 'z':
    case 't':
    case 'j':
        at++;
        return Size::LongLong;
    default:
        return Size::Int;
    }
}

Conversion ReadConversion(const char*& at, ArgumentList& arguments)
{
    Conversion c;
    for (bool flag = true; flag;) {
        switch (*at) {
        case '-':
            c.left = true;
            break;
        case '+':
            c.plus = true;
            break;
        case ' ':
            c.space = true;
            break;
        case '#':
            c.alternate = true;
            break;
        case '0':
            c.zero = true;
            break;
        default:
            flag = false;
            continue;
        }
        at++;
    }
    c.width = ReadNumber(at, arguments);
    if (c.width < 0) {
        c.left = true;
        c.width = -c.width;
    }
    if (*at == '.') {
        at++;
        c.precision = ReadNumber(at, arguments); // a negative one counts as none
    }
    c.size = ReadSize(at);
    c.type = *at;
    if (*at != 0)
        at++;
    return c;
}

void PutPadded(Output& out, const Conversion& c, const char* text, size_t length)
{
    int padding = length < static_cast<size_t>(c.width) ? c.width - static_cast<int>(length) : 0;
    if (!c.left)
        out.Fill(c.zero ? '0' : ' ', padding);
    out.Put(text, length);
    if (c.left)
        out.Fill(' ', padding);
}

void PutNumber(Output& out, const Conversion& c, uint64_t value, unsigned base, bool upper,
               const char* prefix)
{
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char text[24];
    size_t length = 0;
    for (; value != 0; value /= base)
        text[length++] = digits[value % base];
    if (length == 0 && c.precision != 0)
        text[length++] = '0';
    int zeros = c.precision > static_cast<int>(length) ? c.precision - static_cast<int>(length) : 0;
    auto used = static_cast<int>(length + strlen(prefix)) + zeros;
    int padding = c.width > used ? c.width - used : 0;
    if (c.zero && !c.left && c.precision < 0) {
        zeros += padding;
        padding = 0;
    }
    if (!c.left)
        out.Fill(' ', padding);
    out.Put(prefix, strlen(prefix));
    out.Fill('0', zeros);
    while (length > 0)
        out.Put(text[--length]);
    if (c.left)
        out.Fill(' ', padding);
}

int64_t ReadSigned(const Conversion& c, ArgumentList& arguments)
{
    if (c.size == Size::LongLong)
        return va_arg(arguments.list, long long);
    int value = va_arg(arguments.list, int);
    if (c.size == Size::Short)
        return static_cast<short>(value);
    return c.size == Size::Char ? static_cast<signed char>(value) : value;
}

uint64_t ReadUnsigned(const Conversion& c, ArgumentList& arguments)
{
    if (c.size == Size::LongLong)
        return va_arg(arguments.list, unsigned long long);
    unsigned value = va_arg(arguments.list, unsigned);
    if (c.size == Size::Short)
        return static_cast<unsigned short>(value);
    return c.size == Size::Char ? static_cast<unsigned char>(value) : value;
}

// One character of UTF-16 text at `at`, at most to `end`, as UTF-8. Half of a pair becomes a question mark.
size_t ToUtf8(const WCHAR*& at, const WCHAR* end, char* out)
{
    uint32_t code = *at++;
    if (code >= 0xD800 && code <= 0xDBFF && at != end && *at >= 0xDC00 && *at <= 0xDFFF)
        code = 0x10000 + ((code - 0xD800) << 10) + (*at++ - 0xDC00u);
    else if (code >= 0xD800 && code <= 0xDFFF)
        code = '?';
    if (code < 0x80) {
        out[0] = static_cast<char>(code);
        return 1;
    }
    size_t length = code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
    for (size_t i = length - 1; i > 0; i--, code >>= 6)
        out[i] = static_cast<char>(0x80 | (code & 0x3F));
    out[0] = static_cast<char>((0xF00 >> length) | code);
    return length;
}

void PutWide(Output& out, const Conversion& c, const WCHAR* text, size_t length)
{
    const WCHAR* end = text + length;
    char bytes[4];
    size_t size = 0;
    for (const WCHAR* at = text; at != end;)
        size += ToUtf8(at, end, bytes);
    int padding = size < static_cast<size_t>(c.width) ? c.width - static_cast<int>(size) : 0;
    if (!c.left)
        out.Fill(c.zero ? '0' : ' ', padding);
    for (const WCHAR* at = text; at != end;)
        out.Put(bytes, ToUtf8(at, end, bytes));
    if (c.left)
        out.Fill(' ', padding);
}

template <typename Char>
size_t BoundedLength(const Char* text, int precision)
{
    size_t length = 0;
    while ((precision < 0 || length < static_cast<size_t>(precision)) && text[length] != 0)
        length++;
    return length;
}

void PutNull(Output& out, const Conversion& c)
{
    static const char text[] = "(null)";
    PutPadded(out, c, text, BoundedLength(text, c.precision));
}

void PutText(Output& out, const Conversion& c, ArgumentList& arguments, bool wide)
{
    const void* text = va_arg(arguments.list, const void*);
    if (text == nullptr)
        PutNull(out, c);
    else if (wide)
        PutWide(out, c, static_cast<const WCHAR*>(text),
                BoundedLength(static_cast<const WCHAR*>(text), c.precision));
    else
        PutPadded(out, c, static_cast<const char*>(text),
                  BoundedLength(static_cast<const char*>(text), c.precision));
}

void PutCounted(Output& out, const Conversion& c, ArgumentList& arguments)
{
    const auto* text = va_arg(arguments.list, const STRING*); // both kinds have the same shape
    if (text == nullptr || text->Buffer == nullptr) {
        PutNull(out, c);
        return;
    }
    bool wide = c.size == Size::Wide || c.size == Size::Long;
    size_t length = text->Length / (wide ? sizeof(WCHAR) : 1);
    if (c.precision >= 0 && static_cast<size_t>(c.precision) < length)
        length = static_cast<size_t>(c.precision);
    if (wide)
        PutWide(out, c, reinterpret_cast<const WCHAR*>(text->Buffer), length);
    else
        PutPadded(out, c, text->Buffer, length);
}

void PutCharacter(Output& out, const Conversion& c, ArgumentList& arguments, bool wide)
{
    int value = va_arg(arguments.list, int);
    auto wideCharacter = static_cast<WCHAR>(value);
    auto character = static_cast<char>(value);
    if (wide)
        PutWide(out, c, &wideCharacter, 1);
    else
        PutPadded(out, c, &character, 1);
}

void PutPointer(Output& out, Conversion c, ArgumentList& arguments)
{
    c.precision = 16;
    PutNumber(out, c, reinterpret_cast<uintptr_t>(va_arg(arguments.list, void*)), 16, true,
              c.alternate ? "0X" : "");
}

void PutSigned(Output& out, const Conversion& c, ArgumentList& arguments)
{
    int64_t value = ReadSigned(c, arguments);
    auto magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    PutNumber(out, c, magnitude, 10, false, value < 0 ? "-" : c.plus ? "+" : c.space ? " " : "");
}

void PutUnsigned(Output& out, const Conversion& c, ArgumentList& arguments)
{
    uint64_t value = ReadUnsigned(c, arguments);
    bool prefixed = c.alternate && value != 0;
    switch (c.type) {
    case 'o':
        return PutNumber(out, c, value, 8, false, prefixed ? "0" : "");
    case 'x':
        return PutNumber(out, c, value, 16, false, prefixed ? "0x" : "");
    case 'X':
        return PutNumber(out, c, value, 16, true, prefixed ? "0X" : "");
    default:
        return PutNumber(out, c, value, 10, false, "");
    }
}

void PutConversion(Output& out, const Conversion& c, ArgumentList& arguments)
{
    bool wideSize = c.size == Size::Wide || c.size == Size::Long;
    switch (c.type) {
    case 'd':
    case 'i':
        return PutSigned(out, c, arguments);
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        return PutUnsigned(out, c, arguments);
    case 'p':
        return PutPointer(out, c, arguments);
    case 'c':
        return PutCharacter(out, c, arguments, wideSize);
    case 'C':
        return PutCharacter(out, c, arguments, c.size != Size::Short);
    case 's':
        return PutText(out, c, arguments, wideSize);
    case 'S':
        return PutText(out, c, arguments, c.size != Size::Short);
    case 'Z':
        return PutCounted(out, c, arguments);
    case 0:
        return;
    default: // no conversion: the character stands for itself
        return out.Put(c.type);
    }
}

} // namespace

int _vsnprintf(char* Buffer, size_t Count, const char* Format, va_list Arguments)
{
    Output out(Buffer, Count);
    ArgumentList arguments;
    va_copy(arguments.list, Arguments);
    for (const char* at = Format; *at != 0;) {
        if (*at != '%') {
            out.Put(*at++);
            continue;
        }
        at++;
        PutConversion(out, ReadConversion(at, arguments), arguments);
    }
    va_end(arguments.list);
    if (out.Length() < Count)
        Buffer[out.Length()] = 0;
    // Without a buffer the call asks for the length.
    return out.Length() <= Count || Buffer == nullptr ? static_cast<int>(out.Length()) : -1;
}

int _snprintf(char* Buffer, size_t Count, const char* Format, ...)
{
    va_list arguments;
    va_start(arguments, Format);
    int result = _vsnprintf(Buffer, Count, Format, arguments);
    va_end(arguments);
    return result;
}

#include "platform/host/Kernel.h"
#include "platform/host/ControlMemory.h"
#include "platform/host/ControlSystem.h"
#include "platform/host/Utf8.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace
{
thread_local DWORD t_lastError = 0;

std::atomic<LONG>* AsAtomic(LONG volatile* value)
{
    static_assert(sizeof(std::atomic<LONG>) == sizeof(LONG), "lock-free LONG");
    return reinterpret_cast<std::atomic<LONG>*>(const_cast<LONG*>(value));
}

pthread_mutex_t* MutexOf(LPCRITICAL_SECTION section)
{
    static_assert(sizeof(pthread_mutex_t) <= sizeof(section->impl), "critical section storage");
    return reinterpret_cast<pthread_mutex_t*>(section->impl);
}

// Windows-1252, the ANSI code page of an English installation, for 0x80..0x9F; the rest is Latin-1.
const char16_t kCp1252High[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                  0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                  0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                  0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

const ULONG_PTR kPointerSecret = 0x5A3C96E1B2D4F087ull;
} // namespace

DWORD GetLastError(void)
{
    return t_lastError;
}
void SetLastError(DWORD error)
{
    t_lastError = error;
}

LONG InterlockedIncrement(LONG volatile* value)
{
    return AsAtomic(value)->fetch_add(1) + 1;
}
LONG InterlockedDecrement(LONG volatile* value)
{
    return AsAtomic(value)->fetch_sub(1) - 1;
}
LONG InterlockedExchange(LONG volatile* target, LONG value)
{
    return AsAtomic(target)->exchange(value);
}
LONG InterlockedExchangeAdd(LONG volatile* target, LONG value)
{
    return AsAtomic(target)->fetch_add(value);
}
LONG InterlockedCompareExchange(LONG volatile* target, LONG exchange, LONG comparand)
{
    AsAtomic(target)->compare_exchange_strong(comparand, exchange);
    return comparand;
}
PVOID InterlockedCompareExchangePointer(PVOID volatile* target, PVOID exchange, PVOID comparand)
{
    auto* atomic = reinterpret_cast<std::atomic<PVOID>*>(const_cast<PVOID*>(target));
    atomic->compare_exchange_strong(comparand, exchange);
    return comparand;
}
PVOID InterlockedExchangePointer(PVOID volatile* target, PVOID value)
{
    return reinterpret_cast<std::atomic<PVOID>*>(const_cast<PVOID*>(target))->exchange(value);
}

void InitializeCriticalSection(LPCRITICAL_SECTION section)
{
    InitializeCriticalSectionEx(section, 0, 0);
}
BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD spinCount)
{
    return InitializeCriticalSectionEx(section, spinCount, 0);
}
BOOL InitializeCriticalSectionEx(LPCRITICAL_SECTION section, DWORD spinCount, DWORD)
{
    std::memset(section, 0, sizeof(*section));
    section->LockCount = -1;
    section->SpinCount = spinCount;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    int failed = pthread_mutex_init(MutexOf(section), &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (failed)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    return TRUE;
}
void EnterCriticalSection(LPCRITICAL_SECTION section)
{
    pthread_mutex_lock(MutexOf(section));
}
BOOL TryEnterCriticalSection(LPCRITICAL_SECTION section)
{
    return pthread_mutex_trylock(MutexOf(section)) == 0 ? TRUE : FALSE;
}
void LeaveCriticalSection(LPCRITICAL_SECTION section)
{
    pthread_mutex_unlock(MutexOf(section));
}
void DeleteCriticalSection(LPCRITICAL_SECTION section)
{
    pthread_mutex_destroy(MutexOf(section));
}

PVOID EncodePointer(PVOID pointer)
{
    return reinterpret_cast<PVOID>(reinterpret_cast<ULONG_PTR>(pointer) ^ kPointerSecret);
}
PVOID DecodePointer(PVOID pointer)
{
    return reinterpret_cast<PVOID>(reinterpret_cast<ULONG_PTR>(pointer) ^ kPointerSecret);
}

DWORD GetCurrentProcessId(void)
{
    return static_cast<DWORD>(getpid());
}
DWORD GetCurrentThreadId(void)
{
    return static_cast<DWORD>(syscall(SYS_gettid));
}
HANDLE GetCurrentProcess(void)
{
    return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1));
}

HANDLE GetProcessHeap(void)
{
    return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(0x48454150));
}
namespace
{
std::atomic<LONG> g_liveHeapBlocks{0};
} // namespace

LONG VmHostLiveHeapBlocks(void)
{
    return g_liveHeapBlocks.load();
}

LPVOID HeapAlloc(HANDLE, DWORD flags, SIZE_T bytes)
{
    void* memory =
        (flags & HEAP_ZERO_MEMORY) ? std::calloc(1, bytes ? bytes : 1) : std::malloc(bytes ? bytes : 1);
    if (!memory)
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    else
        ++g_liveHeapBlocks;
    return memory;
}
LPVOID HeapReAlloc(HANDLE, DWORD, LPVOID memory, SIZE_T bytes)
{
    void* grown = std::realloc(memory, bytes ? bytes : 1);
    if (!grown)
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return grown;
}
BOOL HeapFree(HANDLE, DWORD, LPVOID memory)
{
    if (memory)
        --g_liveHeapBlocks;
    std::free(memory);
    return TRUE;
}
SIZE_T HeapSize(HANDLE, DWORD, LPCVOID)
{
    return static_cast<SIZE_T>(-1);
}
HLOCAL LocalAlloc(UINT flags, SIZE_T bytes)
{
    return HeapAlloc(nullptr, (flags & LMEM_ZEROINIT) ? HEAP_ZERO_MEMORY : 0, bytes);
}
HLOCAL LocalFree(HLOCAL memory)
{
    HeapFree(GetProcessHeap(), 0, memory);
    return nullptr;
}

errno_t _wcslwr_s(WCHAR* text, size_t elements)
{
    if (!text)
        return EINVAL;
    size_t length = 0;
    while (length < elements && text[length] != 0)
        ++length;
    if (length == elements)
    {
        if (elements)
            text[0] = 0;
        return EINVAL;
    }
    for (size_t i = 0; i < length; ++i)
        if (text[i] >= u'A' && text[i] <= u'Z')
            text[i] = static_cast<WCHAR>(text[i] + 32);
    return 0;
}

int _wtoi(const WCHAR* text)
{
    if (!text)
        return 0;
    while (*text == u' ' || (*text >= u'\t' && *text <= u'\r'))
        ++text;
    bool negative = false;
    if (*text == u'-' || *text == u'+')
        negative = *text++ == u'-';
    // Overflow wraps like the C runtime's 32-bit accumulation on Windows.
    uint32_t value = 0;
    for (; *text >= u'0' && *text <= u'9'; ++text)
        value = value * 10u + static_cast<uint32_t>(*text - u'0');
    return static_cast<int>(negative ? 0u - value : value);
}

namespace
{
WCHAR FoldUpper(WCHAR c)
{
    if (c >= u'a' && c <= u'z')
        return static_cast<WCHAR>(c - 32);
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7)
        return static_cast<WCHAR>(c - 32);
    return c;
}
} // namespace

// As the C runtime compares in the "C" locale: A-Z folded to lower case, at most `count` characters, a
// terminator ending the comparison.
int _wcsnicmp(const WCHAR* a, const WCHAR* b, size_t count)
{
    for (; count; --count, ++a, ++b)
    {
        WCHAR x = (*a >= u'A' && *a <= u'Z') ? static_cast<WCHAR>(*a + 32) : *a;
        WCHAR y = (*b >= u'A' && *b <= u'Z') ? static_cast<WCHAR>(*b + 32) : *b;
        if (x != y)
            return x < y ? -1 : 1;
        if (!x)
            return 0;
    }
    return 0;
}

int lstrcmpiW(LPCWSTR a, LPCWSTR b)
{
    if (!a || !b)
        return a ? 1 : (b ? -1 : 0);
    for (;; ++a, ++b)
    {
        WCHAR x = FoldUpper(*a), y = FoldUpper(*b);
        if (x != y)
            return x < y ? -1 : 1;
        if (!x)
            return 0;
    }
}
int lstrcmpW(LPCWSTR a, LPCWSTR b)
{
    if (!a || !b)
        return a ? 1 : (b ? -1 : 0);
    for (; *a && *a == *b; ++a, ++b)
    {
    }
    return *a == *b ? 0 : (*a < *b ? -1 : 1);
}
// Finds the terminator eight units at a time. A block is read only from an aligned address, so it never
// reaches into another page, though it may read the units just behind the terminator: that is why the
// function is kept from the address and thread sanitizers, whose shadows know nothing of alignment.
__attribute__((no_sanitize("address", "thread"))) int lstrlenW(LPCWSTR text)
{
    if (!text)
        return 0;
    const WCHAR* at = text;
#if defined(__SSE2__)
    for (; reinterpret_cast<uintptr_t>(at) % sizeof(__m128i); ++at)
        if (!*at)
            return static_cast<int>(at - text);
    const __m128i zero = _mm_setzero_si128();
    while (!_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_load_si128(reinterpret_cast<const __m128i*>(at)), zero)))
        at += 8;
#endif
    while (*at)
        ++at;
    return static_cast<int>(at - text);
}
LPWSTR CharNextW(LPCWSTR text)
{
    // A surrogate pair is one character; an end stays where it is.
    if (!*text)
        return const_cast<LPWSTR>(text);
    if (text[0] >= 0xD800 && text[0] <= 0xDBFF && text[1] >= 0xDC00 && text[1] <= 0xDFFF)
        return const_cast<LPWSTR>(text + 2);
    return const_cast<LPWSTR>(text + 1);
}

namespace
{
// Paths and lists are nearly all ASCII, and a large list is converted more than once on its way to the pipe:
// where the host has SSE2, the converters take eight ASCII units (or bytes) at a time and fall back to one
// character at a time at anything else.
const size_t kBlock = 8;

// Eight units, if all are ASCII, as eight bytes at `out`; false, with nothing written, if any is not. With
// `out` null, only the test.
bool NarrowAscii(const char16_t* wide, char* out)
{
#if defined(__SSE2__)
    __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(wide));
    __m128i high = _mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xFF80)));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(high, _mm_setzero_si128())) != 0xFFFF)
        return false;
    if (out)
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(units, units));
    return true;
#else
    (void)wide, (void)out; // no blocks: every character takes the path of one
    return false;
#endif
}

// Eight bytes, if all are ASCII, as eight units at `out`; as NarrowAscii the other way.
bool WidenAscii(const unsigned char* bytes, char16_t* out)
{
#if defined(__SSE2__)
    __m128i eight = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes));
    if (_mm_movemask_epi8(eight))
        return false;
    if (out)
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(eight, _mm_setzero_si128()));
    return true;
#else
    (void)bytes, (void)out;
    return false;
#endif
}

// The UTF-8 of the character at wide[i] (an unpaired surrogate is U+FFFD, as Windows converts it) into
// `out`; returns its byte count and moves `i` behind the character.
int EncodeCharacter(const char16_t* wide, size_t count, size_t& i, char out[4])
{
    uint32_t c = wide[i++];
    if (c < 0x80)
    {
        out[0] = static_cast<char>(c);
        return 1;
    }
    if (c >= 0xD800 && c <= 0xDBFF && i < count && wide[i] >= 0xDC00 && wide[i] <= 0xDFFF)
        c = 0x10000 + ((c - 0xD800) << 10) + (wide[i++] - 0xDC00);
    else if (c >= 0xD800 && c <= 0xDFFF)
        c = 0xFFFD;
    if (c < 0x800)
    {
        out[0] = static_cast<char>(0xC0 | (c >> 6));
        out[1] = static_cast<char>(0x80 | (c & 0x3F));
        return 2;
    }
    if (c < 0x10000)
    {
        out[0] = static_cast<char>(0xE0 | (c >> 12));
        out[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (c & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | (c >> 18));
    out[1] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (c & 0x3F));
    return 4;
}

// Converts `count` units into `out` as far as `capacity` bytes allow, or only counts with `out` null. The
// UTF-8 byte count; with `out`, SIZE_MAX as soon as the next character would not fit.
size_t EncodeUtf8(const char16_t* wide, size_t count, char* out, size_t capacity)
{
    size_t written = 0;
    size_t i = 0;
    while (i < count)
    {
        // A run of ASCII blocks in a tight loop of its own (while a whole block has room: after that the
        // characters go one by one, up to the one that does not fit).
        if (!out)
            for (; count - i >= kBlock && NarrowAscii(wide + i, nullptr); i += kBlock)
                written += kBlock;
        else
            for (;
                 count - i >= kBlock && capacity - written >= kBlock && NarrowAscii(wide + i, out + written);
                 i += kBlock)
                written += kBlock;
        if (i == count)
            break;
        char character[4];
        int length = EncodeCharacter(wide, count, i, character);
        if (out)
        {
            if (capacity - written < static_cast<size_t>(length))
                return SIZE_MAX;
            std::memcpy(out + written, character, static_cast<size_t>(length));
        }
        written += static_cast<size_t>(length);
    }
    return written;
}

// The character that starts at bytes[i], decoded as Windows does (each invalid or truncated sequence is one
// U+FFFD, and sets `invalid`), into `out` as one or two units; returns the unit count and moves `i` on.
int DecodeCharacter(const unsigned char* bytes, size_t count, size_t& i, char16_t out[2], bool& invalid)
{
    unsigned char b = bytes[i];
    uint32_t c;
    size_t need;
    uint32_t min;
    if (b < 0x80)
    {
        out[0] = static_cast<char16_t>(b);
        ++i;
        return 1;
    }
    else if (b >= 0xC2 && b <= 0xDF)
        c = b & 0x1F, need = 1, min = 0x80;
    else if (b >= 0xE0 && b <= 0xEF)
        c = b & 0x0F, need = 2, min = 0x800;
    else if (b >= 0xF0 && b <= 0xF4)
        c = b & 0x07, need = 3, min = 0x10000;
    else
    {
        out[0] = u'\xFFFD';
        invalid = true;
        ++i;
        return 1;
    }
    size_t j = 1;
    for (; j <= need && i + j < count && (bytes[i + j] & 0xC0) == 0x80; ++j)
        c = (c << 6) | (bytes[i + j] & 0x3F);
    if (j <= need || c < min || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
    {
        out[0] = u'\xFFFD';
        invalid = true;
        i += (j > 1 ? j : 1);
        return 1;
    }
    i += need + 1;
    if (c >= 0x10000)
    {
        c -= 0x10000;
        out[0] = static_cast<char16_t>(0xD800 + (c >> 10));
        out[1] = static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        return 2;
    }
    out[0] = static_cast<char16_t>(c);
    return 1;
}

// Decodes all `count` bytes, writing into `out` as far as `capacity` units allow (nothing with `out` null);
// the unit count of the whole text, whether or not it fitted.
size_t DecodeUtf8(const unsigned char* bytes, size_t count, char16_t* out, size_t capacity, bool& invalid)
{
    invalid = false;
    size_t units = 0;
    size_t i = 0;
    while (i < count)
    {
        if (out)
            for (; count - i >= kBlock && capacity - units >= kBlock && WidenAscii(bytes + i, out + units);
                 i += kBlock)
                units += kBlock;
        if (out && count - i >= kBlock && capacity - units < kBlock && WidenAscii(bytes + i, nullptr))
            out = nullptr; // no room for an ASCII block: the text cannot fit, and the rest is only counted
        if (!out)
            for (; count - i >= kBlock && WidenAscii(bytes + i, nullptr); i += kBlock)
                units += kBlock;
        if (i == count)
            break;
        char16_t character[2];
        int length = DecodeCharacter(bytes, count, i, character, invalid);
        if (out && capacity - units >= static_cast<size_t>(length))
            std::memcpy(out + units, character, static_cast<size_t>(length) * sizeof(char16_t));
        else
            out = nullptr;
        units += static_cast<size_t>(length);
    }
    return units;
}

bool KnownCodePage(UINT codePage)
{
    return codePage == CP_UTF8 || codePage == CP_ACP || codePage == CP_THREAD_ACP || codePage == 1252;
}
} // namespace

std::string VmHost::Utf8(const WCHAR* text, size_t units)
{
    std::string out(EncodeUtf8(text, units, nullptr, 0), '\0');
    EncodeUtf8(text, units, out.data(), out.size());
    return out;
}

std::string VmHost::Utf8(const WCHAR* text)
{
    return text ? Utf8(text, static_cast<size_t>(lstrlenW(text))) : std::string();
}

std::u16string VmHost::Utf16(const char* bytes, size_t count)
{
    bool invalid = false;
    auto* in = reinterpret_cast<const unsigned char*>(bytes);
    std::u16string out(DecodeUtf8(in, count, nullptr, 0, invalid), u'\0');
    DecodeUtf8(in, count, out.data(), out.size(), invalid);
    return out;
}

int WideCharToMultiByte(UINT codePage, DWORD, LPCWSTR wide, int wideCount, LPSTR bytes, int byteCount, LPCSTR,
                        LPBOOL usedDefault)
{
    if (!wide || wideCount == 0 || byteCount < 0 || (byteCount > 0 && !bytes) || !KnownCodePage(codePage))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    size_t count = wideCount < 0 ? static_cast<size_t>(lstrlenW(wide)) + 1 : static_cast<size_t>(wideCount);
    if (codePage == CP_UTF8)
    {
        // Straight into the caller's buffer, or only counted: callers measure first, and large texts are
        // common.
        size_t written =
            EncodeUtf8(wide, count, byteCount > 0 ? bytes : nullptr, static_cast<size_t>(byteCount));
        if (written == SIZE_MAX)
        {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return 0;
        }
        if (written > 0x7FFFFFFF)
        {
            SetLastError(ERROR_INVALID_PARAMETER);
            return 0;
        }
        return static_cast<int>(written);
    }
    if (usedDefault)
        *usedDefault = FALSE;
    std::string out;
    out.reserve(count);
    for (size_t i = 0; i < count; ++i)
    {
        char16_t c = wide[i];
        char byte = '?';
        if (c < 0x80 || (c >= 0xA0 && c <= 0xFF))
            byte = static_cast<char>(c);
        else
        {
            bool found = false;
            for (int k = 0; k < 32 && !found; ++k)
                if (kCp1252High[k] == c)
                    byte = static_cast<char>(0x80 + k), found = true;
            if (!found && usedDefault)
                *usedDefault = TRUE;
        }
        out += byte;
    }
    if (out.size() > 0x7FFFFFFF)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (byteCount == 0)
        return static_cast<int>(out.size());
    if (out.size() > static_cast<size_t>(byteCount))
    {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    std::memcpy(bytes, out.data(), out.size());
    return static_cast<int>(out.size());
}

int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR bytes, int byteCount, LPWSTR wide, int wideCount)
{
    if (!bytes || byteCount == 0 || wideCount < 0 || (wideCount > 0 && !wide) || !KnownCodePage(codePage))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    size_t count = byteCount < 0 ? std::strlen(bytes) + 1 : static_cast<size_t>(byteCount);
    if (codePage == CP_UTF8)
    {
        // Straight into the caller's buffer, as far as it reaches; the whole text is still decoded, so an
        // invalid sequence is reported before a buffer that is too small, whichever comes first.
        bool invalid = false;
        size_t units = DecodeUtf8(reinterpret_cast<const unsigned char*>(bytes), count,
                                  wideCount > 0 ? wide : nullptr, static_cast<size_t>(wideCount), invalid);
        if (invalid && (flags & MB_ERR_INVALID_CHARS))
        {
            SetLastError(1113); // ERROR_NO_UNICODE_TRANSLATION
            return 0;
        }
        if (wideCount > 0 && units > static_cast<size_t>(wideCount))
        {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return 0;
        }
        return static_cast<int>(units);
    }
    std::u16string out;
    out.reserve(count);
    for (size_t i = 0; i < count; ++i)
    {
        unsigned char b = static_cast<unsigned char>(bytes[i]);
        out += (b >= 0x80 && b < 0xA0) ? kCp1252High[b - 0x80] : static_cast<char16_t>(b);
    }
    if (wideCount == 0)
        return static_cast<int>(out.size());
    if (out.size() > static_cast<size_t>(wideCount))
    {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    std::memcpy(wide, out.data(), out.size() * sizeof(char16_t));
    return static_cast<int>(out.size());
}

namespace
{
std::atomic<bool> g_recordDebugOutput{false};
std::mutex g_debugOutputLock;
std::vector<std::u16string> g_debugOutput;
} // namespace

void OutputDebugStringW(LPCWSTR text)
{
    static const bool enabled = std::getenv("VELMOUNT_TRACE") != nullptr;
    if (!text)
        return;
    if (g_recordDebugOutput.load(std::memory_order_relaxed))
    {
        std::lock_guard<std::mutex> hold(g_debugOutputLock);
        g_debugOutput.emplace_back(text);
    }
    if (enabled)
        std::fprintf(stderr, "%s\n", VmHost::Utf8(text).c_str());
}

void VmHost::RecordDebugOutput(bool on)
{
    std::lock_guard<std::mutex> hold(g_debugOutputLock);
    if (on)
        g_debugOutput.clear();
    g_recordDebugOutput.store(on);
}

std::vector<std::u16string> VmHost::DebugOutput()
{
    std::lock_guard<std::mutex> hold(g_debugOutputLock);
    return g_debugOutput;
}

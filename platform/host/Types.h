// Win32's basic types, with the widths they have on 64-bit Windows (LLP64): 32-bit LONG and DWORD on a
// platform where long is 64 bits, 16-bit WCHAR on a platform where wchar_t is 32 bits.
#pragma once

#include <cstddef>
#include <cstdint>

#define WINAPI
#define STDMETHODCALLTYPE
#define STDAPI extern "C" HRESULT
#define STDAPI_(type) extern "C" type
#define CALLBACK
#define APIENTRY
#define WINBASEAPI extern "C" __attribute__((visibility("default")))
#define DECLSPEC_NOTHROW
#define __stdcall

typedef int32_t BOOL;
typedef uint8_t BYTE;
typedef uint8_t BOOLEAN;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef int16_t SHORT;
typedef uint16_t USHORT;
typedef int32_t INT;
typedef uint32_t UINT;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
typedef uint64_t DWORD64;
typedef intptr_t INT_PTR;
typedef uintptr_t UINT_PTR;
typedef intptr_t LONG_PTR;
typedef uintptr_t ULONG_PTR;
typedef uintptr_t DWORD_PTR;
typedef size_t SIZE_T;
typedef intptr_t SSIZE_T;
typedef float FLOAT;
typedef char CHAR;
typedef unsigned char UCHAR;
typedef char16_t WCHAR;
typedef WCHAR OLECHAR;
typedef int32_t HRESULT;
typedef int32_t SCODE;
typedef DWORD LCID;
typedef WORD LANGID;
typedef uint64_t UINT64;
typedef uint32_t UINT32;
typedef int32_t INT32;

typedef void* PVOID;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef CHAR* LPSTR;
typedef const CHAR* LPCSTR;
typedef WCHAR* LPWSTR;
typedef WCHAR* PWSTR;
typedef const WCHAR* LPCWSTR;
typedef const WCHAR* PCWSTR;
typedef WCHAR* LPOLESTR;
typedef const WCHAR* LPCOLESTR;
typedef OLECHAR* BSTR;
typedef BYTE* LPBYTE;
typedef DWORD* LPDWORD;
typedef DWORD* PDWORD;
typedef LONG* PLONG;
typedef BOOL* LPBOOL;
typedef ULONG* PULONG;

typedef UINT_PTR WPARAM;
typedef LONG_PTR LPARAM;
typedef LONG_PTR LRESULT;

// Handles are distinct pointer types, as with STRICT on Windows, so mixing them up does not compile.
#define VM_DECLARE_HANDLE(name)                                                                              \
    struct name##__                                                                                          \
    {                                                                                                        \
        int unused;                                                                                          \
    };                                                                                                       \
    typedef struct name##__* name
typedef void* HANDLE;
typedef HANDLE* PHANDLE;
VM_DECLARE_HANDLE(HKEY);
VM_DECLARE_HANDLE(HWND);
VM_DECLARE_HANDLE(HMENU);
VM_DECLARE_HANDLE(HINSTANCE);
VM_DECLARE_HANDLE(HBITMAP);
VM_DECLARE_HANDLE(HMONITOR);
VM_DECLARE_HANDLE(HRSRC);
VM_DECLARE_HANDLE(HDROP);
VM_DECLARE_HANDLE(HGDIOBJ__unused);
typedef HINSTANCE HMODULE;
typedef HANDLE HGLOBAL;
typedef HANDLE HLOCAL;
typedef void* HGDIOBJ;
typedef HKEY* PHKEY;
typedef LONG LSTATUS;
typedef DWORD REGSAM;
typedef DWORD ACCESS_MASK;

#define TRUE 1
#define FALSE 0
#define MAX_PATH 260
#define INFINITE 0xFFFFFFFF
#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)

#define TEXT(s) u##s
#define __TEXT(s) u##s
#define L_VM(s) u##s

#define MAKEINTRESOURCEW(i) ((LPWSTR)(ULONG_PTR)(WORD)(i))
#define IS_INTRESOURCE(r) ((((ULONG_PTR)(r)) >> 16) == 0)
#define LOWORD(l) ((WORD)(((DWORD_PTR)(l)) & 0xffff))
#define HIWORD(l) ((WORD)((((DWORD_PTR)(l)) >> 16) & 0xffff))
#define MAKELONG(a, b) ((LONG)(((WORD)(((DWORD_PTR)(a)) & 0xffff)) | ((DWORD)((WORD)(((DWORD_PTR)(b)) & 0xffff))) << 16))
#define MAKELANGID(p, s) ((((WORD)(s)) << 10) | (WORD)(p))
#define MAKELCID(lgid, srtid) ((DWORD)((((DWORD)((WORD)(srtid))) << 16) | ((DWORD)((WORD)(lgid)))))
#define LANG_NEUTRAL 0x00
#define LANG_ENGLISH 0x09
#define SUBLANG_NEUTRAL 0x00
#define SUBLANG_DEFAULT 0x01
#define SUBLANG_ENGLISH_US 0x01
#define SORT_DEFAULT 0x0

// Result codes.
#define SUCCEEDED(hr) (((HRESULT)(hr)) >= 0)
#define FAILED(hr) (((HRESULT)(hr)) < 0)
#define VM_HR(v) ((HRESULT)(v##u))
#define S_OK ((HRESULT)0)
#define S_FALSE ((HRESULT)1)
#define E_NOTIMPL VM_HR(0x80004001)
#define E_NOINTERFACE VM_HR(0x80004002)
#define E_POINTER VM_HR(0x80004003)
#define E_ABORT VM_HR(0x80004004)
#define E_FAIL VM_HR(0x80004005)
#define E_UNEXPECTED VM_HR(0x8000FFFF)
#define E_ACCESSDENIED VM_HR(0x80070005)
#define E_HANDLE VM_HR(0x80070006)
#define E_OUTOFMEMORY VM_HR(0x8007000E)
#define E_INVALIDARG VM_HR(0x80070057)
#define DISP_E_EXCEPTION VM_HR(0x80020009)
#define DISP_E_TYPEMISMATCH VM_HR(0x80020005)
#define DISP_E_OVERFLOW VM_HR(0x8002000A)
#define CLASS_E_NOAGGREGATION VM_HR(0x80040110)
#define CLASS_E_CLASSNOTAVAILABLE VM_HR(0x80040111)
#define REGDB_E_CLASSNOTREG VM_HR(0x80040154)
#define TYPE_E_CANTLOADLIBRARY VM_HR(0x80029C4A)
#define TYPE_E_REGISTRYACCESS VM_HR(0x8002801C)
#define DV_E_FORMATETC VM_HR(0x80040064)
#define DV_E_TYMED VM_HR(0x80040069)
#define OLE_E_ADVISENOTSUPPORTED VM_HR(0x80040003)
#define CO_E_NOTINITIALIZED VM_HR(0x800401F0)
#define RPC_E_CHANGED_MODE VM_HR(0x80010106)
#define FACILITY_WIN32 7
#define HRESULT_FROM_WIN32(x)                                                                                \
    ((HRESULT)(x) <= 0 ? ((HRESULT)(x)) : ((HRESULT)(((x) & 0x0000FFFF) | (FACILITY_WIN32 << 16) | 0x80000000)))
#define HRESULT_CODE(hr) ((hr) & 0xFFFF)
#define HRESULT_FACILITY(hr) (((hr) >> 16) & 0x1fff)

// Windows error numbers the system meets.
#define ERROR_SUCCESS 0L
#define NO_ERROR 0L
#define ERROR_INVALID_FUNCTION 1L
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_PATH_NOT_FOUND 3L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_NOT_ENOUGH_MEMORY 8L
#define ERROR_BAD_FORMAT 11L
#define ERROR_INVALID_DATA 13L
#define ERROR_OUTOFMEMORY 14L
#define ERROR_NOT_SUPPORTED 50L
#define ERROR_FILE_EXISTS 80L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_BROKEN_PIPE 109L
#define ERROR_INSUFFICIENT_BUFFER 122L
#define ERROR_INVALID_NAME 123L
#define ERROR_MOD_NOT_FOUND 126L
#define ERROR_PROC_NOT_FOUND 127L
#define ERROR_DIR_NOT_EMPTY 145L
#define ERROR_ALREADY_EXISTS 183L
#define ERROR_PIPE_BUSY 231L
#define ERROR_NO_DATA 232L
#define ERROR_PIPE_NOT_CONNECTED 233L
#define ERROR_MORE_DATA 234L
#define ERROR_NO_MORE_ITEMS 259L
#define ERROR_ARITHMETIC_OVERFLOW 534L
#define ERROR_PIPE_CONNECTED 535L
#define ERROR_PIPE_LISTENING 536L
#define ERROR_IO_PENDING 997L
#define ERROR_NOACCESS 998L
#define ERROR_CANTOPEN 1011L
#define ERROR_CANTREAD 1012L
#define ERROR_CANTWRITE 1013L
#define ERROR_KEY_DELETED 1018L
#define ERROR_RESOURCE_DATA_NOT_FOUND 1812L
#define ERROR_RESOURCE_TYPE_NOT_FOUND 1813L
#define ERROR_RESOURCE_NAME_NOT_FOUND 1814L
#define ERROR_SEM_TIMEOUT 121L
#define ERROR_TIMEOUT 1460L
#define ERROR_CLASS_DOES_NOT_EXIST 1411L
#define ERROR_CANCELLED 1223L

typedef struct _GUID
{
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
} GUID;
typedef GUID IID;
typedef GUID CLSID;
typedef const GUID& REFGUID;
typedef const IID& REFIID;
typedef const CLSID& REFCLSID;
typedef IID* LPIID;
typedef CLSID* LPCLSID;

inline bool operator==(const GUID& a, const GUID& b)
{
    return a.Data1 == b.Data1 && a.Data2 == b.Data2 && a.Data3 == b.Data3 &&
           *reinterpret_cast<const uint64_t*>(a.Data4) == *reinterpret_cast<const uint64_t*>(b.Data4);
}
inline bool operator!=(const GUID& a, const GUID& b) { return !(a == b); }
inline BOOL IsEqualGUID(REFGUID a, REFGUID b) { return a == b; }
#define IsEqualIID(a, b) IsEqualGUID(a, b)
#define IsEqualCLSID(a, b) IsEqualGUID(a, b)
#define InlineIsEqualGUID(a, b) IsEqualGUID(a, b)

typedef struct tagRECT
{
    LONG left;
    LONG top;
    LONG right;
    LONG bottom;
} RECT, *LPRECT;
typedef const RECT* LPCRECT;
typedef struct tagPOINT
{
    LONG x;
    LONG y;
} POINT, *LPPOINT;
typedef struct tagSIZE
{
    LONG cx;
    LONG cy;
} SIZE;

typedef union _LARGE_INTEGER
{
    struct
    {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER;
typedef union _ULARGE_INTEGER
{
    struct
    {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER;

typedef struct _FILETIME
{
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
} FILETIME;

typedef struct _SECURITY_ATTRIBUTES
{
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

typedef struct _OVERLAPPED
{
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    union
    {
        struct
        {
            DWORD Offset;
            DWORD OffsetHigh;
        } s;
        PVOID Pointer;
    } u;
    HANDLE hEvent;
} OVERLAPPED, *LPOVERLAPPED;

static_assert(sizeof(DWORD) == 4 && sizeof(LONG) == 4 && sizeof(HRESULT) == 4 && sizeof(WCHAR) == 2,
              "Win32 widths");
static_assert(sizeof(GUID) == 16, "GUID layout");

#include "platform/host/Identity.h"
#include "platform/host/ControlIdentity.h"
#include "platform/host/HandleTable.h"
#include "platform/host/Kernel.h"

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace
{
std::mutex g_lock;
std::vector<BYTE> g_userSid;
bool g_tokenRefused = false;
DWORD g_sessionId = 1;
bool g_sessionFails = false;

// A token handle: it only needs to be closable.
class TokenObject : public VmHost::KernelObject
{
};

bool ParseSid(LPCWSTR text, std::vector<BYTE>& out)
{
    if (!text || text[0] != u'S' || text[1] != u'-')
        return false;
    std::vector<unsigned long long> numbers;
    const WCHAR* p = text + 2;
    while (true)
    {
        if (*p < u'0' || *p > u'9')
            return false;
        unsigned long long number = 0;
        while (*p >= u'0' && *p <= u'9')
        {
            number = number * 10 + static_cast<unsigned>(*p - u'0');
            if (number > 0xFFFFFFFFFFFFull)
                return false;
            ++p;
        }
        numbers.push_back(number);
        if (*p == 0)
            break;
        if (*p != u'-')
            return false;
        ++p;
    }
    // Revision, authority, then 0 to 15 sub-authorities of 32 bits each.
    if (numbers.size() < 2 || numbers.size() > 2 + SID_MAX_SUB_AUTHORITIES || numbers[0] != 1)
        return false;
    out.assign(8 + 4 * (numbers.size() - 2), 0);
    out[0] = 1;
    out[1] = static_cast<BYTE>(numbers.size() - 2);
    for (int i = 0; i < 6; ++i)
        out[2 + i] = static_cast<BYTE>(numbers[1] >> (8 * (5 - i)));
    for (size_t i = 2; i < numbers.size(); ++i)
    {
        if (numbers[i] > 0xFFFFFFFFull)
            return false;
        DWORD value = static_cast<DWORD>(numbers[i]);
        std::memcpy(&out[8 + 4 * (i - 2)], &value, 4);
    }
    return true;
}

void EnsureDefaultSid()
{
    if (g_userSid.empty() && !g_tokenRefused)
        ParseSid(u"S-1-5-21-3623811015-3361044348-30300820-1013", g_userSid);
}
} // namespace

BOOL VmHostSetUserSid(LPCWSTR sidText)
{
    std::lock_guard<std::mutex> hold(g_lock);
    if (!sidText)
    {
        g_userSid.clear();
        g_tokenRefused = true;
        return TRUE;
    }
    std::vector<BYTE> sid;
    if (!ParseSid(sidText, sid))
        return FALSE;
    g_userSid = sid;
    g_tokenRefused = false;
    return TRUE;
}

void VmHostSetSession(DWORD sessionId, BOOL fails)
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_sessionId = sessionId;
    g_sessionFails = fails != FALSE;
}

BOOL OpenProcessToken(HANDLE ProcessHandle, DWORD, PHANDLE TokenHandle)
{
    if (!TokenHandle)
    {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    if (ProcessHandle != GetCurrentProcess())
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    {
        std::lock_guard<std::mutex> hold(g_lock);
        if (g_tokenRefused)
        {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
    }
    *TokenHandle = VmHost::AddHandle(std::make_shared<TokenObject>());
    return TRUE;
}

BOOL GetTokenInformation(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                         LPVOID TokenInformation, DWORD TokenInformationLength, PDWORD ReturnLength)
{
    if (!VmHost::FindHandleOf<TokenObject>(TokenHandle))
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (TokenInformationClass != TokenUser)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!ReturnLength)
    {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    std::lock_guard<std::mutex> hold(g_lock);
    EnsureDefaultSid();
    DWORD needed = static_cast<DWORD>(sizeof(TOKEN_USER) + g_userSid.size());
    *ReturnLength = needed;
    if (!TokenInformation || TokenInformationLength < needed)
    {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    BYTE* bytes = static_cast<BYTE*>(TokenInformation);
    std::memcpy(bytes + sizeof(TOKEN_USER), g_userSid.data(), g_userSid.size());
    TOKEN_USER* user = static_cast<TOKEN_USER*>(TokenInformation);
    user->User.Sid = bytes + sizeof(TOKEN_USER);
    user->User.Attributes = 0;
    return TRUE;
}

BOOL IsValidSid(PSID pSid)
{
    const BYTE* bytes = static_cast<const BYTE*>(pSid);
    return bytes && bytes[0] == 1 && bytes[1] <= SID_MAX_SUB_AUTHORITIES;
}

DWORD GetLengthSid(PSID pSid)
{
    return IsValidSid(pSid) ? 8u + 4u * static_cast<const BYTE*>(pSid)[1] : 0u;
}

BOOL ConvertSidToStringSidW(PSID Sid, LPWSTR* StringSid)
{
    if (!Sid || !StringSid)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!IsValidSid(Sid))
    {
        SetLastError(ERROR_INVALID_SID);
        return FALSE;
    }
    const BYTE* bytes = static_cast<const BYTE*>(Sid);
    unsigned long long authority = 0;
    for (int i = 0; i < 6; ++i)
        authority = (authority << 8) | bytes[2 + i];
    std::string text = "S-1-" + std::to_string(authority);
    for (int i = 0; i < bytes[1]; ++i)
    {
        DWORD value;
        std::memcpy(&value, bytes + 8 + 4 * i, 4);
        text += "-" + std::to_string(value);
    }
    WCHAR* out = static_cast<WCHAR*>(LocalAlloc(LMEM_FIXED, (text.size() + 1) * sizeof(WCHAR)));
    if (!out)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    for (size_t i = 0; i <= text.size(); ++i)
        out[i] = static_cast<WCHAR>(static_cast<unsigned char>(text.c_str()[i]));
    *StringSid = out;
    return TRUE;
}

BOOL ConvertStringSidToSidW(LPCWSTR StringSid, PSID* Sid)
{
    std::vector<BYTE> sid;
    if (!Sid || !ParseSid(StringSid, sid))
    {
        SetLastError(Sid ? ERROR_INVALID_SID : ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    void* out = LocalAlloc(LMEM_FIXED, sid.size());
    if (!out)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    std::memcpy(out, sid.data(), sid.size());
    *Sid = out;
    return TRUE;
}

BOOL ProcessIdToSessionId(DWORD dwProcessId, DWORD* pSessionId)
{
    if (!pSessionId)
    {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    std::lock_guard<std::mutex> hold(g_lock);
    if (g_sessionFails || dwProcessId != GetCurrentProcessId())
    {
        SetLastError(g_sessionFails ? ERROR_ACCESS_DENIED : ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *pSessionId = g_sessionId;
    return TRUE;
}

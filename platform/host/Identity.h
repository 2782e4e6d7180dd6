// The user's identity and the process's session. The stand-in's process token carries one user SID, settable
// with VmHostSetUserSid (ControlIdentity.h); SIDs have Windows' binary layout and string form.
#pragma once

#include "platform/host/Types.h"

#define TOKEN_QUERY 0x0008
#define TOKEN_READ 0x00020008
#define ERROR_INVALID_SID 1337L

typedef enum _TOKEN_INFORMATION_CLASS
{
    TokenUser = 1,
    TokenGroups = 2,
    TokenPrivileges = 3,
    TokenOwner = 4
} TOKEN_INFORMATION_CLASS;

typedef struct _SID_IDENTIFIER_AUTHORITY
{
    BYTE Value[6];
} SID_IDENTIFIER_AUTHORITY;
typedef struct _SID
{
    BYTE Revision;
    BYTE SubAuthorityCount;
    SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
    DWORD SubAuthority[1];
} SID;
typedef PVOID PSID;
#define SID_MAX_SUB_AUTHORITIES 15
#define SECURITY_MAX_SID_SIZE (sizeof(SID) - sizeof(DWORD) + (SID_MAX_SUB_AUTHORITIES * sizeof(DWORD)))

typedef struct _SID_AND_ATTRIBUTES
{
    PSID Sid;
    DWORD Attributes;
} SID_AND_ATTRIBUTES;
typedef struct _TOKEN_USER
{
    SID_AND_ATTRIBUTES User;
} TOKEN_USER, *PTOKEN_USER;

WINBASEAPI BOOL OpenProcessToken(HANDLE ProcessHandle, DWORD DesiredAccess, PHANDLE TokenHandle);
WINBASEAPI BOOL GetTokenInformation(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                    LPVOID TokenInformation, DWORD TokenInformationLength,
                                    PDWORD ReturnLength);
WINBASEAPI BOOL ConvertSidToStringSidW(PSID Sid, LPWSTR* StringSid);
WINBASEAPI BOOL ConvertStringSidToSidW(LPCWSTR StringSid, PSID* Sid);
WINBASEAPI BOOL IsValidSid(PSID pSid);
WINBASEAPI DWORD GetLengthSid(PSID pSid);
WINBASEAPI BOOL ProcessIdToSessionId(DWORD dwProcessId, DWORD* pSessionId);

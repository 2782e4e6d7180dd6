// What registration offers the rest of the module: running one registry script resource of this library, and
// the per-user switch that DllInstall("user") sets for the rest of the process.
#pragma once

#include "platform/Win32.h"

// 1 after DllInstall with "user"; never cleared. Any other value means per machine.
extern BYTE g_perUserRegistration;

// A name and a value for the script's %NAME% references; an array of them ends with a null name.
struct RegistryReplacement
{
    LPCWSTR name;
    LPCWSTR value;
};

const UINT IDR_APPID_SCRIPT = 101;
const UINT IDR_CLASS_SCRIPT = 106;

// Runs script resource `resourceId` of `module` in the direction `registering`, with the library's path as
// %MODULE% and %MODULE_RAW%, the module's common replacements and `replacements` (or none).
HRESULT ApplyRegistryResource(HINSTANCE module, UINT resourceId, BOOL registering,
                              const RegistryReplacement* replacements);
// Whether the system is Windows XP (5.1) or later, the first to know the approved list of shell extensions.
BOOL IsVersion51OrLater();

// The three registration exports. DllInstall's command line switches to per-user registration with "user".
STDAPI DllRegisterServer();
STDAPI DllUnregisterServer();
STDAPI DllInstall(BOOL install, LPCWSTR commandLine);

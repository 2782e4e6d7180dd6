// The COM runtime's apartment and activation calls. Apartments are counted per thread as on Windows (a second
// CoInitializeEx in another model gives RPC_E_CHANGED_MODE; a thread in no apartment may still activate while
// some thread of the process keeps the multithreaded apartment alive). Activation looks first at the class
// objects registered in this process, then at the classes the stand-in itself provides (the system's progress
// dialog), then fails with REGDB_E_CLASSNOTREG.
#pragma once

#include "platform/host/Com.h"

#define REGCLS_SINGLEUSE 0
#define REGCLS_MULTIPLEUSE 1
#define REGCLS_MULTI_SEPARATE 2
#define REGCLS_SUSPENDED 4
#ifndef CO_E_NOTINITIALIZED
#define CO_E_NOTINITIALIZED VM_HR(0x800401F0)
#endif

WINBASEAPI HRESULT CoInitializeEx(LPVOID reserved, DWORD coInit);
WINBASEAPI HRESULT CoInitialize(LPVOID reserved);
WINBASEAPI void CoUninitialize(void);
WINBASEAPI HRESULT CoCreateInstance(REFCLSID clsid, LPUNKNOWN outer, DWORD clsContext, REFIID iid,
                                    LPVOID* object);
WINBASEAPI HRESULT CoRegisterClassObject(REFCLSID clsid, LPUNKNOWN classObject, DWORD clsContext, DWORD flags,
                                         LPDWORD cookie);
WINBASEAPI HRESULT CoRevokeClassObject(DWORD cookie);

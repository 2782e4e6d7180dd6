// OLE Automation calls of the stand-in: BSTR, number parsing, and type libraries.
//
// LoadTypeLib reads the published MSFT layout, either from resource 1 of type "TYPELIB" of a module (the path
// goes through LoadLibraryExW as a data file) or from a .tlb file (through CreateFileW). RegisterTypeLib and
// RegisterTypeLibForUser write the standard keys under HKEY_CLASSES_ROOT or
// HKEY_CURRENT_USER\Software\Classes: TypeLib\{libid}\major.minor (the library's doc string, or its name),
// its \lcid\win64 (the path), \FLAGS and \HELPDIR, and Interface\{iid} for each dual or automation interface
// (the name, ProxyStubClsid32 and the TypeLib reference). The unregister pair removes exactly these.
#pragma once

#include "platform/host/Com.h"
#include "platform/host/Types.h"

#define WINOLEAUTAPI WINBASEAPI HRESULT

WINBASEAPI BSTR SysAllocString(const OLECHAR* text);
WINBASEAPI BSTR SysAllocStringLen(const OLECHAR* text, UINT length);
WINBASEAPI void SysFreeString(BSTR text);
WINBASEAPI UINT SysStringLen(BSTR text);

// Text to unsigned 32-bit number as OLE Automation reads it: blanks around, an optional sign, decimal digits
// with an optional fraction (rounded half to even), or &H / &O numbers. DISP_E_TYPEMISMATCH for what isn't a
// number, DISP_E_OVERFLOW for what doesn't fit.
WINOLEAUTAPI VarUI4FromStr(OLECHAR* strIn, LCID lcid, ULONG dwFlags, ULONG* pulOut);

typedef enum tagREGKIND
{
    REGKIND_DEFAULT = 0,
    REGKIND_REGISTER = 1,
    REGKIND_NONE = 2
} REGKIND;

typedef enum tagLIBFLAGS
{
    LIBFLAG_FRESTRICTED = 0x1,
    LIBFLAG_FCONTROL = 0x2,
    LIBFLAG_FHIDDEN = 0x4,
    LIBFLAG_FHASDISKIMAGE = 0x8
} LIBFLAGS;

#define TYPEFLAG_FAPPOBJECT 0x1
#define TYPEFLAG_FCANCREATE 0x2
#define TYPEFLAG_FDUAL 0x40
#define TYPEFLAG_FNONEXTENSIBLE 0x80
#define TYPEFLAG_FOLEAUTOMATION 0x100
#define TYPEFLAG_FDISPATCHABLE 0x1000

#define TYPE_E_ELEMENTNOTFOUND VM_HR(0x8002802B)
#define TYPE_E_INVDATAREAD VM_HR(0x80028018)
#define TYPE_E_LIBNOTREGISTERED VM_HR(0x8002801D)
#define TYPE_E_UNSUPFORMAT VM_HR(0x80028019)

WINOLEAUTAPI LoadTypeLib(LPCOLESTR szFile, ITypeLib** pptlib);
WINOLEAUTAPI LoadTypeLibEx(LPCOLESTR szFile, REGKIND regkind, ITypeLib** pptlib);
WINOLEAUTAPI RegisterTypeLib(ITypeLib* ptlib, LPCOLESTR szFullPath, LPCOLESTR szHelpDir);
WINOLEAUTAPI UnRegisterTypeLib(REFGUID libID, WORD wVerMajor, WORD wVerMinor, LCID lcid, SYSKIND syskind);
WINOLEAUTAPI RegisterTypeLibForUser(ITypeLib* ptlib, OLECHAR* szFullPath, OLECHAR* szHelpDir);
WINOLEAUTAPI UnRegisterTypeLibForUser(REFGUID libID, WORD wMajorVerNum, WORD wMinorVerNum, LCID lcid,
                                      SYSKIND syskind);

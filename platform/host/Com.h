// COM's base contract and the interfaces the system uses, in Win32's slot order with Win32's identifiers.
#pragma once

#include "platform/host/Types.h"

#define VM_GUID(name, d1, d2, d3, b0, b1, b2, b3, b4, b5, b6, b7)                                          \
    inline constexpr GUID name = {d1, d2, d3, {b0, b1, b2, b3, b4, b5, b6, b7}}

VM_GUID(GUID_NULL, 0x00000000, 0x0000, 0x0000, 0, 0, 0, 0, 0, 0, 0, 0);
VM_GUID(IID_IUnknown, 0x00000000, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IClassFactory, 0x00000001, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IEnumFORMATETC, 0x00000103, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IEnumSTATDATA, 0x00000105, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IDataObject, 0x0000010E, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IAdviseSink, 0x0000010F, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IOleWindow, 0x00000114, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IShellExtInit, 0x000214E8, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IContextMenu, 0x000214E4, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IContextMenu2, 0x000214F4, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IContextMenu3, 0xBCFCE0A0, 0xEC17, 0x11D0, 0x8D, 0x10, 0x00, 0xA0, 0xC9, 0x0F, 0x27, 0x19);
VM_GUID(IID_IShellItem, 0x43826D1E, 0xE718, 0x42EE, 0xBC, 0x55, 0xA1, 0xE2, 0x61, 0xC3, 0x7B, 0xFE);
VM_GUID(IID_IOperationsProgressDialog, 0x0C9FB851, 0xE5C9, 0x43EB, 0xA3, 0x70, 0xF0, 0x67, 0x7B, 0x13, 0x87,
        0x4C);
VM_GUID(CLSID_ProgressDialog, 0xF8383852, 0xFCD3, 0x11D1, 0xA6, 0xB9, 0x00, 0x60, 0x97, 0xDF, 0x5B, 0xD4);
VM_GUID(IID_ITypeLib, 0x00020402, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_ITypeInfo, 0x00020401, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IDispatch, 0x00020400, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IMarshal, 0x00000003, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(IID_IGlobalInterfaceTable, 0x00000146, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
VM_GUID(CLSID_StdGlobalInterfaceTable, 0x00000323, 0x0000, 0x0000, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);

struct IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppvObject) = 0;
    virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
    virtual ULONG STDMETHODCALLTYPE Release() = 0;
};
typedef IUnknown* LPUNKNOWN;

struct IClassFactory : public IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppvObject) = 0;
    virtual HRESULT STDMETHODCALLTYPE LockServer(BOOL fLock) = 0;
};

// Data transfer.
typedef WORD CLIPFORMAT;
#define CF_TEXT 1
#define CF_HDROP 15
#define CF_UNICODETEXT 13
typedef enum tagDVASPECT
{
    DVASPECT_CONTENT = 1,
    DVASPECT_THUMBNAIL = 2,
    DVASPECT_ICON = 4,
    DVASPECT_DOCPRINT = 8
} DVASPECT;
typedef enum tagTYMED
{
    TYMED_HGLOBAL = 1,
    TYMED_FILE = 2,
    TYMED_ISTREAM = 4,
    TYMED_ISTORAGE = 8,
    TYMED_GDI = 16,
    TYMED_MFPICT = 32,
    TYMED_ENHMF = 64,
    TYMED_NULL = 0
} TYMED;
typedef struct tagDVTARGETDEVICE DVTARGETDEVICE;
typedef struct tagFORMATETC
{
    CLIPFORMAT cfFormat;
    DVTARGETDEVICE* ptd;
    DWORD dwAspect;
    LONG lindex;
    DWORD tymed;
} FORMATETC, *LPFORMATETC;
typedef struct tagSTGMEDIUM
{
    DWORD tymed;
    union
    {
        HBITMAP hBitmap;
        HGLOBAL hGlobal;
        LPOLESTR lpszFileName;
        void* pstm;
        void* pstg;
    };
    IUnknown* pUnkForRelease;
} STGMEDIUM, *LPSTGMEDIUM;
struct IEnumFORMATETC;
struct IAdviseSink;
struct IEnumSTATDATA;

struct IDataObject : public IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE GetData(FORMATETC* pformatetcIn, STGMEDIUM* pmedium) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDataHere(FORMATETC* pformatetc, STGMEDIUM* pmedium) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryGetData(FORMATETC* pformatetc) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetCanonicalFormatEtc(FORMATETC* pformatectIn, FORMATETC* pformatetcOut) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetData(FORMATETC* pformatetc, STGMEDIUM* pmedium, BOOL fRelease) = 0;
    virtual HRESULT STDMETHODCALLTYPE EnumFormatEtc(DWORD dwDirection, IEnumFORMATETC** ppenumFormatEtc) = 0;
    virtual HRESULT STDMETHODCALLTYPE DAdvise(FORMATETC* pformatetc, DWORD advf, IAdviseSink* pAdvSink,
                                              DWORD* pdwConnection) = 0;
    virtual HRESULT STDMETHODCALLTYPE DUnadvise(DWORD dwConnection) = 0;
    virtual HRESULT STDMETHODCALLTYPE EnumDAdvise(IEnumSTATDATA** ppenumAdvise) = 0;
};
typedef IDataObject* LPDATAOBJECT;

// Shell item id lists are opaque here: the system only hands them to SHGetPathFromIDListW.
typedef struct _ITEMIDLIST
{
    BYTE bytes[1];
} ITEMIDLIST;
typedef ITEMIDLIST* LPITEMIDLIST;
typedef const ITEMIDLIST* LPCITEMIDLIST;
typedef const ITEMIDLIST* PCIDLIST_ABSOLUTE;
typedef ITEMIDLIST* PIDLIST_ABSOLUTE;

struct IShellExtInit : public IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE Initialize(PCIDLIST_ABSOLUTE pidlFolder, IDataObject* pdtobj,
                                                 HKEY hkeyProgID) = 0;
};

typedef struct _CMINVOKECOMMANDINFO
{
    DWORD cbSize;
    DWORD fMask;
    HWND hwnd;
    LPCSTR lpVerb;
    LPCSTR lpParameters;
    LPCSTR lpDirectory;
    int nShow;
    DWORD dwHotKey;
    HANDLE hIcon;
} CMINVOKECOMMANDINFO, *LPCMINVOKECOMMANDINFO;
typedef const CMINVOKECOMMANDINFO* PCCMINVOKECOMMANDINFO;

#define CMF_NORMAL 0x00000000
#define CMF_DEFAULTONLY 0x00000001
#define CMF_VERBSONLY 0x00000002
#define CMF_EXPLORE 0x00000004
#define CMF_NOVERBS 0x00000008
#define CMF_CANRENAME 0x00000010
#define CMF_NODEFAULT 0x00000020
#define CMF_EXTENDEDVERBS 0x00000100
#define GCS_VERBA 0x00000000
#define GCS_HELPTEXTA 0x00000001
#define GCS_VALIDATEA 0x00000002
#define GCS_VERBW 0x00000004
#define GCS_HELPTEXTW 0x00000005
#define GCS_VALIDATEW 0x00000006
#define GCS_UNICODE 0x00000004
#define MAKE_HRESULT(sev, fac, code) ((HRESULT)(((unsigned long)(sev) << 31) | ((unsigned long)(fac) << 16) | ((unsigned long)(code))))
#define SEVERITY_SUCCESS 0
#define SEVERITY_ERROR 1
#define FACILITY_NULL 0

struct IContextMenu : public IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE QueryContextMenu(HMENU hmenu, UINT indexMenu, UINT idCmdFirst,
                                                       UINT idCmdLast, UINT uFlags) = 0;
    virtual HRESULT STDMETHODCALLTYPE InvokeCommand(CMINVOKECOMMANDINFO* pici) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetCommandString(UINT_PTR idCmd, UINT uType, UINT* pReserved, CHAR* pszName,
                                                       UINT cchMax) = 0;
};
struct IContextMenu2 : public IContextMenu
{
    virtual HRESULT STDMETHODCALLTYPE HandleMenuMsg(UINT uMsg, WPARAM wParam, LPARAM lParam) = 0;
};

struct IOleWindow : public IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE GetWindow(HWND* phwnd) = 0;
    virtual HRESULT STDMETHODCALLTYPE ContextSensitiveHelp(BOOL fEnterMode) = 0;
};

typedef enum _SIGDN
{
    SIGDN_NORMALDISPLAY = 0,
    SIGDN_FILESYSPATH = (int)0x80058000
} SIGDN;
typedef ULONG SFGAOF;
typedef DWORD SICHINTF;
struct IShellItem : public IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE BindToHandler(void* pbc, REFGUID bhid, REFIID riid, void** ppv) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetParent(IShellItem** ppsi) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDisplayName(SIGDN sigdnName, LPWSTR* ppszName) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetAttributes(SFGAOF sfgaoMask, SFGAOF* psfgaoAttribs) = 0;
    virtual HRESULT STDMETHODCALLTYPE Compare(IShellItem* psi, SICHINTF hint, int* piOrder) = 0;
};

typedef enum SPACTION
{
    SPACTION_NONE = 0,
    SPACTION_MOVING = 1,
    SPACTION_COPYING = 2,
    SPACTION_RECYCLING = 3,
    SPACTION_APPLYINGATTRIBS = 4,
    SPACTION_DOWNLOADING = 5,
    SPACTION_SEARCHING_INTERNET = 6,
    SPACTION_CALCULATING = 7,
    SPACTION_UPLOADING = 8,
    SPACTION_SEARCHING_FILES = 9,
    SPACTION_DELETING = 10,
    SPACTION_RENAMING = 11,
    SPACTION_FORMATTING = 12,
    SPACTION_COPY_MOVING = 13
} SPACTION;
typedef DWORD OPPROGDLGF;
#define OPPROGDLG_DEFAULT 0x0
#define OPPROGDLG_ENABLEPAUSE 0x80
#define OPPROGDLG_ALLOWUNDO 0x100
#define OPPROGDLG_DONTDISPLAYSOURCEPATH 0x200
#define OPPROGDLG_DONTDISPLAYDESTPATH 0x400
#define OPPROGDLG_NOMULTIDAYESTIMATES 0x800
#define OPPROGDLG_DONTDISPLAYLOCATIONS 0x1000
typedef DWORD PDMODE;
#define PDM_DEFAULT 0x0
#define PDM_RUN 0x1
#define PDM_PREFLIGHT 0x2
#define PDM_UNDOING 0x4
#define PDM_ERRORSBLOCKING 0x8
#define PDM_INDETERMINATE 0x10
typedef enum PDOPSTATUS
{
    PDOPS_RUNNING = 1,
    PDOPS_PAUSED = 2,
    PDOPS_CANCELLED = 3,
    PDOPS_STOPPED = 4,
    PDOPS_ERRORS = 5
} PDOPSTATUS;

struct IOperationsProgressDialog : public IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE StartProgressDialog(HWND hwndOwner, OPPROGDLGF flags) = 0;
    virtual HRESULT STDMETHODCALLTYPE StopProgressDialog() = 0;
    virtual HRESULT STDMETHODCALLTYPE SetOperation(SPACTION action) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetMode(PDMODE mode) = 0;
    virtual HRESULT STDMETHODCALLTYPE UpdateProgress(ULONGLONG ullPointsCurrent, ULONGLONG ullPointsTotal,
                                                     ULONGLONG ullSizeCurrent, ULONGLONG ullSizeTotal,
                                                     ULONGLONG ullItemsCurrent, ULONGLONG ullItemsTotal) = 0;
    virtual HRESULT STDMETHODCALLTYPE UpdateLocations(IShellItem* psiSource, IShellItem* psiTarget,
                                                      IShellItem* psiItem) = 0;
    virtual HRESULT STDMETHODCALLTYPE ResetTimer() = 0;
    virtual HRESULT STDMETHODCALLTYPE PauseTimer() = 0;
    virtual HRESULT STDMETHODCALLTYPE ResumeTimer() = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMilliseconds(ULONGLONG* pullElapsed, ULONGLONG* pullRemaining) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetOperationStatus(PDOPSTATUS* popstatus) = 0;
};

// Type libraries: only what registration reads.
typedef enum tagSYSKIND
{
    SYS_WIN16 = 0,
    SYS_WIN32 = 1,
    SYS_MAC = 2,
    SYS_WIN64 = 3
} SYSKIND;
typedef struct tagTLIBATTR
{
    GUID guid;
    LCID lcid;
    SYSKIND syskind;
    WORD wMajorVerNum;
    WORD wMinorVerNum;
    WORD wLibFlags;
} TLIBATTR, *LPTLIBATTR;
typedef LONG MEMBERID;
typedef enum tagTYPEKIND
{
    TKIND_ENUM = 0,
    TKIND_RECORD,
    TKIND_MODULE,
    TKIND_INTERFACE,
    TKIND_DISPATCH,
    TKIND_COCLASS,
    TKIND_ALIAS,
    TKIND_UNION,
    TKIND_MAX
} TYPEKIND;
struct ITypeInfo;
struct ITypeComp;
struct ITypeLib : public IUnknown
{
    virtual UINT STDMETHODCALLTYPE GetTypeInfoCount() = 0;
    virtual HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, ITypeInfo** ppTInfo) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetTypeInfoType(UINT index, TYPEKIND* pTKind) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetTypeInfoOfGuid(REFGUID guid, ITypeInfo** ppTinfo) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetLibAttr(TLIBATTR** ppTLibAttr) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetTypeComp(ITypeComp** ppTComp) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDocumentation(INT index, BSTR* pBstrName, BSTR* pBstrDocString,
                                                       DWORD* pdwHelpContext, BSTR* pBstrHelpFile) = 0;
    virtual HRESULT STDMETHODCALLTYPE IsName(LPOLESTR szNameBuf, ULONG lHashVal, BOOL* pfName) = 0;
    virtual HRESULT STDMETHODCALLTYPE FindName(LPOLESTR szNameBuf, ULONG lHashVal, ITypeInfo** ppTInfo,
                                               MEMBERID* rgMemId, USHORT* pcFound) = 0;
    virtual void STDMETHODCALLTYPE ReleaseTLibAttr(TLIBATTR* pTLibAttr) = 0;
};

// The process's table of interfaces shared across apartments.
struct IGlobalInterfaceTable : public IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE RegisterInterfaceInGlobal(IUnknown* pUnk, REFIID riid, DWORD* pdwCookie) = 0;
    virtual HRESULT STDMETHODCALLTYPE RevokeInterfaceFromGlobal(DWORD dwCookie) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetInterfaceFromGlobal(DWORD dwCookie, REFIID riid, void** ppv) = 0;
};

// The COM runtime's allocator and apartment calls.
#define COINIT_APARTMENTTHREADED 0x2
#define COINIT_MULTITHREADED 0x0
#define CLSCTX_INPROC_SERVER 0x1
#define CLSCTX_INPROC_HANDLER 0x2
#define CLSCTX_LOCAL_SERVER 0x4
#define CLSCTX_ALL 0x17
WINBASEAPI LPVOID CoTaskMemAlloc(SIZE_T bytes);
WINBASEAPI LPVOID CoTaskMemRealloc(LPVOID memory, SIZE_T bytes);
WINBASEAPI void CoTaskMemFree(LPVOID memory);

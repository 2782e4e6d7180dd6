// Arranging the rest of the world a selection meets, through the platform's own calls (the same code on the
// host and on Windows): the per-user registry value, the system clipboard, the keyboard state, folders as
// item id lists, and a data object carrying CF_HDROP.
#pragma once

#include "foundation/WideString.h"
#include "platform/Win32.h"

#include <initializer_list>
#include <vector>

namespace TestSupport
{
// HKLM\Software\Morvenlith\Velmount\Extensions\<sid>: the REG_DWORD "Use", or gone.
void SetUseValue(LPCWSTR sid, DWORD value);
void SetUseValueOfType(LPCWSTR sid, DWORD type, const void* data, DWORD size);
void RemoveUseValue(LPCWSTR sid);

// Empties the system clipboard and puts a 4-byte block there for each registered format name.
void SetClipboardFormats(std::initializer_list<LPCWSTR> formatNames);

// Sets the thread's keyboard state: these keys down, all others up.
void SetKeysDown(std::initializer_list<int> virtualKeys);

// An absolute item id list for a folder, or for a virtual folder without a file system path.
class ItemIdList
{
public:
    explicit ItemIdList(LPCWSTR path);
    static ItemIdList VirtualFolder();
    ItemIdList(ItemIdList&& other) noexcept;
    ~ItemIdList();
    ItemIdList(const ItemIdList&) = delete;
    ItemIdList& operator=(const ItemIdList&) = delete;
    PCIDLIST_ABSOLUTE Get() const { return m_list; }

private:
    ItemIdList() = default;
    PIDLIST_ABSOLUTE m_list = nullptr;
};

// A data object as the file manager hands it over: CF_HDROP (DROPFILES, wide, double-zero-terminated) and any
// number of 4-byte values under registered formats. Created with one reference.
class DropDataObject : public IDataObject
{
public:
    static DropDataObject* Create(const std::vector<WideString>& paths);
    // Offers these bytes as they are for CF_HDROP, a hostile sender's block included.
    static DropDataObject* FromBlock(std::vector<BYTE> block);
    // Offers no CF_HDROP at all, or one whose medium can't be locked.
    void WithoutDropFiles() { m_dropMode = DropMode::Missing; }
    void WithUnlockableDropFiles() { m_dropMode = DropMode::Unlockable; }
    void AddValue(LPCWSTR formatName, DWORD value);
    // How often GetData was asked for CF_HDROP.
    int DropFilesRequests() const { return m_dropRequests; }
    // Hands out every medium with an owner in pUnkForRelease, which frees the block when released, as a data
    // object that keeps its data does; without, ReleaseStgMedium frees the block itself.
    void WithMediumOwners() { m_owners = true; }
    // Media handed out by GetData, and media whose owner was released (owners only).
    int MediaHandedOut() const { return m_mediaHandedOut; }
    int MediaReleased() const { return m_mediaReleased; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    HRESULT STDMETHODCALLTYPE GetData(FORMATETC* format, STGMEDIUM* medium) override;
    HRESULT STDMETHODCALLTYPE GetDataHere(FORMATETC*, STGMEDIUM*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryGetData(FORMATETC* format) override;
    HRESULT STDMETHODCALLTYPE GetCanonicalFormatEtc(FORMATETC*, FORMATETC* out) override;
    HRESULT STDMETHODCALLTYPE SetData(FORMATETC*, STGMEDIUM*, BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE EnumFormatEtc(DWORD, IEnumFORMATETC**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE DAdvise(FORMATETC*, DWORD, IAdviseSink*, DWORD*) override
    {
        return OLE_E_ADVISENOTSUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DUnadvise(DWORD) override { return OLE_E_ADVISENOTSUPPORTED; }
    HRESULT STDMETHODCALLTYPE EnumDAdvise(IEnumSTATDATA**) override { return OLE_E_ADVISENOTSUPPORTED; }

private:
    enum class DropMode
    {
        Offered,
        Missing,
        Unlockable
    };
    struct Value
    {
        CLIPFORMAT format;
        DWORD value;
    };
    DropDataObject() = default;
    virtual ~DropDataObject();

    LONG m_references = 1;
    std::vector<BYTE> m_dropFiles;
    std::vector<Value> m_values;
    DropMode m_dropMode = DropMode::Offered;
    int m_dropRequests = 0;
    bool m_owners = false;
    int m_mediaHandedOut = 0;
    int m_mediaReleased = 0;
};

// The DROPFILES block for these paths, as the file manager lays it out.
std::vector<BYTE> DropFilesBlock(const std::vector<WideString>& paths);
} // namespace TestSupport

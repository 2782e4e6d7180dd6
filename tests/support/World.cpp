#include "tests/support/World.h"

#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

namespace TestSupport
{
namespace
{
const WCHAR kExtensionsKey[] = TEXT("Software\\Morvenlith\\Velmount\\Extensions");

HGLOBAL CopyToGlobal(const void* bytes, SIZE_T size)
{
    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, size);
    if (!block)
        return nullptr;
    void* memory = GlobalLock(block);
    std::memcpy(memory, bytes, size);
    GlobalUnlock(block);
    return block;
}
} // namespace

void SetUseValueOfType(LPCWSTR sid, DWORD type, const void* data, DWORD size)
{
    WideString path(kExtensionsKey);
    path.Append(TEXT("\\"));
    path.Append(sid);
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS)
        throw std::runtime_error(std::string("RegCreateKeyExW failed, error ") +
                                 std::to_string(GetLastError()));
    LONG status = RegSetValueExW(key, TEXT("Use"), 0, type, static_cast<const BYTE*>(data), size);
    RegCloseKey(key);
    if (status != ERROR_SUCCESS)
        throw std::runtime_error(std::string("RegSetValueExW failed, error ") +
                                 std::to_string(GetLastError()));
}

void SetUseValue(LPCWSTR sid, DWORD value)
{
    SetUseValueOfType(sid, REG_DWORD, &value, sizeof(value));
}

void RemoveUseValue(LPCWSTR sid)
{
    WideString path(kExtensionsKey);
    path.Append(TEXT("\\"));
    path.Append(sid);
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_SET_VALUE, &key) == ERROR_SUCCESS)
    {
        RegDeleteValueW(key, TEXT("Use"));
        RegCloseKey(key);
    }
}

void SetClipboardFormats(std::initializer_list<LPCWSTR> formatNames)
{
    if (!OpenClipboard(nullptr))
        throw std::runtime_error(std::string("OpenClipboard failed, error ") +
                                 std::to_string(GetLastError()));
    EmptyClipboard();
    for (LPCWSTR name : formatNames)
    {
        DWORD value = 1;
        HGLOBAL block = CopyToGlobal(&value, sizeof(value));
        if (!SetClipboardData(RegisterClipboardFormatW(name), block))
            GlobalFree(block);
    }
    CloseClipboard();
}

void SetKeysDown(std::initializer_list<int> virtualKeys)
{
    BYTE keys[256] = {};
    for (int key : virtualKeys)
        keys[key] = 0x80;
    SetKeyboardState(keys);
}

ItemIdList::ItemIdList(LPCWSTR path) : m_list(ILCreateFromPathW(path))
{
    if (!m_list)
        throw std::runtime_error(std::string("ILCreateFromPathW failed, error ") +
                                 std::to_string(GetLastError()));
}

ItemIdList ItemIdList::VirtualFolder()
{
    ItemIdList list;
    if (FAILED(SHGetSpecialFolderLocation(nullptr, CSIDL_CONTROLS, &list.m_list)))
        throw std::runtime_error(std::string("SHGetSpecialFolderLocation failed, error ") +
                                 std::to_string(GetLastError()));
    return list;
}

ItemIdList::ItemIdList(ItemIdList&& other) noexcept : m_list(other.m_list)
{
    other.m_list = nullptr;
}

ItemIdList::~ItemIdList()
{
    if (m_list)
        ILFree(m_list);
}

std::vector<BYTE> DropFilesBlock(const std::vector<WideString>& paths)
{
    DROPFILES header = {};
    header.pFiles = sizeof(DROPFILES);
    header.fWide = TRUE;
    std::vector<BYTE> block(reinterpret_cast<const BYTE*>(&header),
                            reinterpret_cast<const BYTE*>(&header + 1));
    for (const WideString& path : paths)
    {
        const BYTE* text = reinterpret_cast<const BYTE*>(path.GetString());
        block.insert(block.end(), text, text + (path.GetLength() + 1) * sizeof(WCHAR));
    }
    // The list ends with an empty name; an empty list is that name twice, as the shell writes it.
    block.insert(block.end(), (paths.empty() ? 2 : 1) * sizeof(WCHAR), 0);
    return block;
}

DropDataObject* DropDataObject::Create(const std::vector<WideString>& paths)
{
    DropDataObject* object = new DropDataObject;
    object->m_dropFiles = DropFilesBlock(paths);
    return object;
}

DropDataObject* DropDataObject::FromBlock(std::vector<BYTE> block)
{
    DropDataObject* object = new DropDataObject;
    object->m_dropFiles = std::move(block);
    return object;
}

DropDataObject::~DropDataObject() = default;

void DropDataObject::AddValue(LPCWSTR formatName, DWORD value)
{
    m_values.push_back(Value{static_cast<CLIPFORMAT>(RegisterClipboardFormatW(formatName)), value});
}

HRESULT DropDataObject::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDataObject))
    {
        *ppv = static_cast<IDataObject*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

ULONG DropDataObject::AddRef()
{
    return static_cast<ULONG>(++m_references);
}

ULONG DropDataObject::Release()
{
    LONG left = --m_references;
    if (left == 0)
        delete this;
    return static_cast<ULONG>(left);
}

HRESULT DropDataObject::QueryGetData(FORMATETC* format)
{
    if (!format)
        return E_INVALIDARG;
    if (!(format->tymed & TYMED_HGLOBAL))
        return DV_E_TYMED;
    if (format->cfFormat == CF_HDROP)
        return m_dropMode == DropMode::Missing ? DV_E_FORMATETC : S_OK;
    for (const Value& value : m_values)
        if (value.format == format->cfFormat)
            return S_OK;
    return DV_E_FORMATETC;
}

namespace
{
// The owner of one medium's block: frees it on its last release and counts that release.
class MediumOwner : public IUnknown
{
public:
    MediumOwner(HGLOBAL block, int& released) : m_block(block), m_released(released) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override
    {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        if (!IsEqualIID(riid, IID_IUnknown))
            return E_NOINTERFACE;
        *ppv = static_cast<IUnknown*>(this);
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++m_references); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const LONG left = --m_references;
        if (left == 0)
        {
            GlobalFree(m_block);
            ++m_released;
            delete this;
        }
        return static_cast<ULONG>(left);
    }

private:
    virtual ~MediumOwner() = default;
    LONG m_references = 1;
    HGLOBAL m_block;
    int& m_released;
};
} // namespace

HRESULT DropDataObject::GetData(FORMATETC* format, STGMEDIUM* medium)
{
    if (!format || !medium)
        return E_INVALIDARG;
    HRESULT offered = QueryGetData(format);
    if (format->cfFormat == CF_HDROP)
        ++m_dropRequests;
    if (offered != S_OK)
        return offered;
    HGLOBAL block = nullptr;
    if (format->cfFormat == CF_HDROP)
    {
        if (m_dropMode != DropMode::Unlockable)
            block = CopyToGlobal(m_dropFiles.data(), m_dropFiles.size());
    }
    else
    {
        for (const Value& value : m_values)
            if (value.format == format->cfFormat && !block)
                block = CopyToGlobal(&value.value, sizeof(value.value));
        if (!block)
            return E_OUTOFMEMORY;
    }
    IUnknown* owner = nullptr;
    if (m_owners)
    {
        owner = new (std::nothrow) MediumOwner(block, m_mediaReleased);
        if (!owner)
        {
            GlobalFree(block);
            return E_OUTOFMEMORY;
        }
    }
    medium->tymed = TYMED_HGLOBAL;
    medium->hGlobal = block;
    medium->pUnkForRelease = owner;
    ++m_mediaHandedOut;
    return S_OK;
}

HRESULT DropDataObject::GetCanonicalFormatEtc(FORMATETC*, FORMATETC* out)
{
    if (out)
        out->ptd = nullptr;
    return DATA_S_SAMEFORMATETC;
}
} // namespace TestSupport

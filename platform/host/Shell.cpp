#include "platform/host/Shell.h"
#include "platform/host/ControlMemory.h"
#include "platform/host/Kernel.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace
{
const BYTE kPathSignature[6] = {'V', 'M', 'P', 'A', 'T', 'H'};
const BYTE kVirtualSignature[6] = {'V', 'M', 'V', 'I', 'R', 'T'};

// A moveable block: the handle points to this header, the data follows elsewhere.
struct MoveableBlock
{
    void* data;
    SIZE_T size;
    LONG locks;
};

std::mutex g_memoryLock;
std::set<MoveableBlock*> g_moveable;
std::map<void*, SIZE_T> g_fixed;

MoveableBlock* AsMoveable(HGLOBAL handle)
{
    auto found = g_moveable.find(static_cast<MoveableBlock*>(handle));
    return found == g_moveable.end() ? nullptr : *found;
}

PIDLIST_ABSOLUTE MakeList(const BYTE signature[6], const WCHAR* path, size_t units)
{
    size_t itemSize = 2 + 6 + (units + 1) * sizeof(WCHAR);
    if (itemSize > 0xFFFF)
        return nullptr;
    BYTE* bytes = static_cast<BYTE*>(CoTaskMemAlloc(itemSize + 2));
    if (!bytes)
        return nullptr;
    USHORT cb = static_cast<USHORT>(itemSize);
    std::memcpy(bytes, &cb, 2);
    std::memcpy(bytes + 2, signature, 6);
    if (units)
        std::memcpy(bytes + 8, path, units * sizeof(WCHAR));
    std::memset(bytes + 8 + units * sizeof(WCHAR), 0, 2 + 2);
    return reinterpret_cast<PIDLIST_ABSOLUTE>(bytes);
}

std::mutex g_clipboardLock;
std::map<std::u16string, UINT> g_formatsByName;
UINT g_nextFormat = 0xC000;
std::map<UINT, HANDLE> g_clipboard;
bool g_clipboardOpen = false;

std::u16string FoldName(LPCWSTR name)
{
    std::u16string out;
    for (; *name; ++name)
        out += (*name >= u'a' && *name <= u'z') ? static_cast<char16_t>(*name - 32) : *name;
    return out;
}
} // namespace

HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes)
{
    void* data =
        (uFlags & GMEM_ZEROINIT) ? std::calloc(1, dwBytes ? dwBytes : 1) : std::malloc(dwBytes ? dwBytes : 1);
    if (!data)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    std::lock_guard<std::mutex> hold(g_memoryLock);
    if (!(uFlags & GMEM_MOVEABLE))
    {
        g_fixed[data] = dwBytes;
        return data;
    }
    MoveableBlock* block = new (std::nothrow) MoveableBlock{data, dwBytes, 0};
    if (!block)
    {
        std::free(data);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    g_moveable.insert(block);
    return block;
}

LPVOID GlobalLock(HGLOBAL hMem)
{
    std::lock_guard<std::mutex> hold(g_memoryLock);
    if (MoveableBlock* block = AsMoveable(hMem))
    {
        ++block->locks;
        return block->data;
    }
    if (!hMem)
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    // A fixed block, or a pointer that an earlier GlobalLock handed out: both are their own address.
    return hMem;
}

BOOL GlobalUnlock(HGLOBAL hMem)
{
    std::lock_guard<std::mutex> hold(g_memoryLock);
    MoveableBlock* block = AsMoveable(hMem);
    if (!block)
    {
        SetLastError(ERROR_SUCCESS);
        return FALSE;
    }
    if (block->locks == 0)
    {
        SetLastError(158 /* ERROR_NOT_LOCKED */);
        return FALSE;
    }
    if (--block->locks == 0)
    {
        SetLastError(ERROR_SUCCESS);
        return FALSE;
    }
    return TRUE;
}

HGLOBAL GlobalFree(HGLOBAL hMem)
{
    if (!hMem)
        return nullptr;
    std::lock_guard<std::mutex> hold(g_memoryLock);
    if (MoveableBlock* block = AsMoveable(hMem))
    {
        g_moveable.erase(block);
        std::free(block->data);
        delete block;
        return nullptr;
    }
    auto fixed = g_fixed.find(hMem);
    if (fixed == g_fixed.end())
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return hMem;
    }
    g_fixed.erase(fixed);
    std::free(hMem);
    return nullptr;
}

SIZE_T GlobalSize(HGLOBAL hMem)
{
    std::lock_guard<std::mutex> hold(g_memoryLock);
    if (MoveableBlock* block = AsMoveable(hMem))
        return block->size;
    auto fixed = g_fixed.find(hMem);
    if (fixed != g_fixed.end())
        return fixed->second;
    // A pointer into a locked moveable block.
    for (MoveableBlock* block : g_moveable)
        if (block->data == hMem)
            return block->size;
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
}

DWORD VmHostLiveGlobalBlocks(void)
{
    std::lock_guard<std::mutex> hold(g_memoryLock);
    return static_cast<DWORD>(g_moveable.size() + g_fixed.size());
}

void ReleaseStgMedium(LPSTGMEDIUM pmedium)
{
    if (!pmedium)
        return;
    if (pmedium->pUnkForRelease)
    {
        pmedium->pUnkForRelease->Release();
    }
    else if (pmedium->tymed == TYMED_HGLOBAL && pmedium->hGlobal)
    {
        GlobalFree(pmedium->hGlobal);
    }
    pmedium->tymed = TYMED_NULL;
    pmedium->hGlobal = nullptr;
    pmedium->pUnkForRelease = nullptr;
}

UINT DragQueryFileW(HDROP hDrop, UINT iFile, LPWSTR lpszFile, UINT cch)
{
    if (!hDrop)
        return 0;
    HGLOBAL handle = reinterpret_cast<HGLOBAL>(hDrop);
    SIZE_T size = GlobalSize(handle);
    const BYTE* base = static_cast<const BYTE*>(GlobalLock(handle));
    if (!base)
        return 0;
    const DROPFILES* header = reinterpret_cast<const DROPFILES*>(base);
    UINT result = 0;
    // Stay inside the block when its size is known; a bare pointer is trusted as Windows trusts it.
    const BYTE* end = size ? base + size : nullptr;
    const BYTE* at = base + header->pFiles;
    UINT index = 0;
    bool wide = header->fWide != 0;
    size_t unit = wide ? 2 : 1;
    auto unitAt = [&](const BYTE* p) -> WCHAR
    {
        if (end && p + unit > end)
            return 0;
        if (wide)
        {
            WCHAR c;
            std::memcpy(&c, p, 2);
            return c;
        }
        return static_cast<WCHAR>(*p);
    };
    while (!(end && at >= end) && unitAt(at) != 0)
    {
        const BYTE* start = at;
        size_t length = 0;
        while (unitAt(at) != 0)
            at += unit, ++length;
        if (iFile == index)
        {
            std::u16string path;
            if (wide)
            {
                for (size_t i = 0; i < length; ++i)
                    path += unitAt(start + 2 * i);
            }
            else
            {
                int units = MultiByteToWideChar(CP_ACP, 0, reinterpret_cast<const char*>(start),
                                                static_cast<int>(length), nullptr, 0);
                path.assign(static_cast<size_t>(units), u'\0');
                MultiByteToWideChar(CP_ACP, 0, reinterpret_cast<const char*>(start), static_cast<int>(length),
                                    &path[0], units);
            }
            if (!lpszFile)
                result = static_cast<UINT>(path.size());
            else if (cch)
            {
                size_t copy = path.size() < cch - 1 ? path.size() : cch - 1;
                std::memcpy(lpszFile, path.data(), copy * sizeof(WCHAR));
                lpszFile[copy] = 0;
                result = static_cast<UINT>(copy);
            }
            GlobalUnlock(handle);
            return result;
        }
        at += unit;
        ++index;
    }
    GlobalUnlock(handle);
    return iFile == 0xFFFFFFFF ? index : 0;
}

PIDLIST_ABSOLUTE ILCreateFromPathW(LPCWSTR pszPath)
{
    if (!pszPath || !pszPath[0])
        return nullptr;
    size_t units = 0;
    while (pszPath[units])
        ++units;
    return MakeList(kPathSignature, pszPath, units);
}

void ILFree(LPITEMIDLIST pidl)
{
    CoTaskMemFree(pidl);
}

HRESULT SHGetSpecialFolderLocation(HWND, int csidl, PIDLIST_ABSOLUTE* ppidl)
{
    if (!ppidl)
        return E_INVALIDARG;
    *ppidl = nullptr;
    if (csidl == CSIDL_DESKTOP)
    {
        BYTE* bytes = static_cast<BYTE*>(CoTaskMemAlloc(2));
        if (!bytes)
            return E_OUTOFMEMORY;
        bytes[0] = bytes[1] = 0;
        *ppidl = reinterpret_cast<PIDLIST_ABSOLUTE>(bytes);
        return S_OK;
    }
    if (csidl == CSIDL_CONTROLS)
    {
        *ppidl = MakeList(kVirtualSignature, nullptr, 0);
        return *ppidl ? S_OK : E_OUTOFMEMORY;
    }
    return E_INVALIDARG;
}

BOOL SHGetPathFromIDListW(PCIDLIST_ABSOLUTE pidl, LPWSTR pszPath)
{
    if (!pidl || !pszPath)
        return FALSE;
    pszPath[0] = 0;
    const BYTE* bytes = reinterpret_cast<const BYTE*>(pidl);
    USHORT cb;
    std::memcpy(&cb, bytes, 2);
    if (cb < 2 + 6 + 2 || std::memcmp(bytes + 2, kPathSignature, 6) != 0)
        return FALSE;
    size_t units = (cb - 8) / 2 - 1;
    // The caller's buffer holds MAX_PATH characters: a longer path is no file system path to this call.
    if (units >= MAX_PATH)
        return FALSE;
    std::memcpy(pszPath, bytes + 8, units * sizeof(WCHAR));
    pszPath[units] = 0;
    return TRUE;
}

UINT RegisterClipboardFormatW(LPCWSTR lpszFormat)
{
    if (!lpszFormat || !lpszFormat[0])
    {
        SetLastError(ERROR_INVALID_NAME);
        return 0;
    }
    std::lock_guard<std::mutex> hold(g_clipboardLock);
    std::u16string key = FoldName(lpszFormat);
    auto found = g_formatsByName.find(key);
    if (found != g_formatsByName.end())
        return found->second;
    if (g_nextFormat > 0xFFFF)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
    g_formatsByName[key] = g_nextFormat;
    return g_nextFormat++;
}

BOOL IsClipboardFormatAvailable(UINT format)
{
    std::lock_guard<std::mutex> hold(g_clipboardLock);
    return g_clipboard.count(format) ? TRUE : FALSE;
}

BOOL OpenClipboard(HWND)
{
    std::lock_guard<std::mutex> hold(g_clipboardLock);
    if (g_clipboardOpen)
    {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    g_clipboardOpen = true;
    return TRUE;
}

BOOL EmptyClipboard(void)
{
    std::lock_guard<std::mutex> hold(g_clipboardLock);
    if (!g_clipboardOpen)
    {
        SetLastError(ERROR_CLIPBOARD_NOT_OPEN);
        return FALSE;
    }
    for (auto& entry : g_clipboard)
        if (entry.second)
            GlobalFree(entry.second);
    g_clipboard.clear();
    return TRUE;
}

HANDLE SetClipboardData(UINT uFormat, HANDLE hMem)
{
    std::lock_guard<std::mutex> hold(g_clipboardLock);
    if (!g_clipboardOpen)
    {
        SetLastError(ERROR_CLIPBOARD_NOT_OPEN);
        return nullptr;
    }
    // The clipboard owns the block from here on.
    auto found = g_clipboard.find(uFormat);
    if (found != g_clipboard.end() && found->second && found->second != hMem)
        GlobalFree(found->second);
    g_clipboard[uFormat] = hMem;
    return hMem;
}

BOOL CloseClipboard(void)
{
    std::lock_guard<std::mutex> hold(g_clipboardLock);
    if (!g_clipboardOpen)
    {
        SetLastError(ERROR_CLIPBOARD_NOT_OPEN);
        return FALSE;
    }
    g_clipboardOpen = false;
    return TRUE;
}

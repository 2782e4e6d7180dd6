#include "platform/host/ShellItems.h"

#include "platform/host/ControlFiles.h"
#include "platform/host/ControlProgress.h"
#include "platform/host/Kernel.h"
#include "platform/host/SingleInterface.h"
#include "platform/host/Utf8.h"

#include <atomic>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace
{
std::atomic<long> g_liveItems{0};

class PathItem final : public SingleInterface<PathItem, IShellItem, IID_IShellItem>
{
public:
    explicit PathItem(std::u16string path) : m_path(std::move(path)) { ++g_liveItems; }
    ~PathItem() { --g_liveItems; }

    HRESULT STDMETHODCALLTYPE BindToHandler(void*, REFGUID, REFIID, void** object) override
    {
        if (object)
            *object = nullptr;
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetParent(IShellItem** parent) override
    {
        if (parent)
            *parent = nullptr;
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetDisplayName(SIGDN, LPWSTR* name) override
    {
        if (!name)
            return E_POINTER;
        size_t bytes = (m_path.size() + 1) * sizeof(WCHAR);
        *name = static_cast<LPWSTR>(CoTaskMemAlloc(bytes));
        if (!*name)
            return E_OUTOFMEMORY;
        std::memcpy(*name, m_path.c_str(), bytes);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetAttributes(SFGAOF, SFGAOF* attributes) override
    {
        if (attributes)
            *attributes = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Compare(IShellItem* other, SICHINTF, int* order) override
    {
        if (!other || !order)
            return E_INVALIDARG;
        std::string mine = VmHost::ShellItemPath(this), theirs = VmHost::ShellItemPath(other);
        *order = mine == theirs ? 0 : (mine < theirs ? -1 : 1);
        return *order == 0 ? S_OK : S_FALSE;
    }

    const std::u16string m_path;
};

// The shell makes items only of what is there, and spells their paths as the file system does, the drive
// letter in capitals ("c:\windows\fonts" gives C:\Windows\Fonts). So it is on a drive the stand-in maps; a
// drive it does not map is taken to hold every path, spelled as given.
HRESULT SpellAsOnDisk(PCWSTR path, std::u16string& spelled)
{
    spelled = path;
    WCHAR letter = path[0] >= u'a' && path[0] <= u'z' ? static_cast<WCHAR>(path[0] - 32) : path[0];
    if (letter < u'A' || letter > u'Z' || path[1] != u':')
        return S_OK;
    const WCHAR rootName[] = {letter, u':', u'\\', 0};
    char root[4096], host[4096];
    if (!VmHostTranslatePath(rootName, root, sizeof root))
        return S_OK;
    struct stat info;
    if (!VmHostTranslatePath(path, host, sizeof host) || stat(host, &info) != 0)
        return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    std::string tail = host + std::strlen(root);
    spelled.assign({letter, u':', u'\\'});
    size_t at = 0;
    while (at < tail.size())
    {
        size_t end = tail.find('/', at);
        if (end == std::string::npos)
            end = tail.size();
        if (end > at)
        {
            if (spelled.size() > 3)
                spelled += u'\\';
            spelled += VmHost::Utf16(tail.data() + at, end - at);
        }
        at = end + 1;
    }
    return S_OK;
}
} // namespace

HRESULT SHCreateItemFromParsingName(PCWSTR path, IBindCtx*, REFIID iid, void** item)
{
    if (!item)
        return E_POINTER;
    *item = nullptr;
    if (!path || !*path)
        return E_INVALIDARG;
    for (PCWSTR c = path; *c; ++c)
        if (*c == u'<' || *c == u'>' || *c == u'|' || *c == u'"' || *c == u'*' || *c == u'?')
            return HRESULT_FROM_WIN32(ERROR_INVALID_NAME);
    std::u16string spelled;
    if (HRESULT missing = SpellAsOnDisk(path, spelled); missing != S_OK)
        return missing;
    PathItem* made = new PathItem(spelled);
    HRESULT hr = made->QueryInterface(iid, item);
    made->Release();
    return hr;
}

namespace VmHost
{
long LiveShellItems()
{
    return g_liveItems;
}

std::string ShellItemPath(IShellItem* item)
{
    auto* path = dynamic_cast<PathItem*>(item);
    if (!path || path->m_path.empty())
        return std::string();
    return Utf8(path->m_path);
}
} // namespace VmHost

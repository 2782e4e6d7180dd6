#include "module/ComObject.h"

HRESULT InternalQueryInterface(void* base, const InterfaceMapEntry* entries, REFIID iid, void** out)
{
    if (!base || !entries)
        return E_INVALIDARG;
    if (!out)
        return E_POINTER;
    const InterfaceMapEntry* found = nullptr;
    if (SameId(iid, IID_IUnknown))
        found = entries->m_marker ? entries : nullptr;
    else
        for (const InterfaceMapEntry* row = entries; row->m_marker; ++row)
            if (SameId(iid, *row->m_interfaceId))
            {
                found = row;
                break;
            }
    if (!found)
    {
        *out = nullptr;
        return E_NOINTERFACE;
    }
    auto unknown = reinterpret_cast<IUnknown*>(static_cast<BYTE*>(base) + found->m_offset);
    unknown->AddRef();
    *out = unknown;
    return S_OK;
}

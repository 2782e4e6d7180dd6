// One context menu as the file manager asks for it: a new object, Initialize with the CF_HDROP data,
// QueryContextMenu on the shell's menu, the object released.
#pragma once

#include "extension/CopyMoveExtension.h"
#include "tests/support/TestComObject.h"

namespace BenchSupport
{
typedef TestSupport::TestComObject<CVelmountCopyMoveExtension> MenuExtension;

// The file manager's items menu: its copy and move commands among the usual entries.
inline HMENU ShellMenu()
{
    HMENU menu = CreatePopupMenu();
    AppendMenuW(menu, MF_STRING, 30, TEXT("Open"));
    AppendMenuW(menu, MF_SEPARATOR, 0, nullptr);
    AppendMenuW(menu, MF_STRING, 1, TEXT("Copy"));
    AppendMenuW(menu, MF_STRING, 2, TEXT("Move"));
    return menu;
}

// One menu, start to end; the number of entries the extension added.
inline HRESULT OneMenu(IDataObject* data)
{
    MenuExtension* object = MenuExtension::Create();
    HMENU menu = ShellMenu();
    HRESULT result = object->Initialize(nullptr, data, nullptr);
    if (SUCCEEDED(result))
        result = object->QueryContextMenu(menu, 4, 100, 0x7FFF, CMF_NORMAL);
    object->Release();
    DestroyMenu(menu);
    return result;
}
} // namespace BenchSupport

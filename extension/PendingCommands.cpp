// Placeholders for the menu and invocation operations until MenuEdge.cpp and Invocation.cpp provide them.
#include "extension/CopyMoveExtension.h"

HRESULT CVelmountCopyMoveExtension::InvokeCommand(CMINVOKECOMMANDINFO*)
{
    return E_NOTIMPL;
}

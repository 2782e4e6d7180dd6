// The selection as the file manager hands it over in CF_HDROP: a DROPFILES header, then at its pFiles offset
// the names, each ended by a zero, the whole list by an empty name; UTF-16 when fWide is set, else text of
// the system's ANSI code page.
#pragma once

#include "foundation/NodeList.h"
#include "foundation/WideString.h"
#include "platform/Win32.h"

// Appends the block's names to `paths` in their order, each cut to 259 characters as DragQueryFileW cuts
// them into a 260-character buffer; a name that converts to nothing is skipped. Reads only the `size` bytes
// at `block`, once. False, with `paths` as it was, when the header doesn't fit, pFiles lies at or behind the
// block's end, or the list runs into the end without its closing empty name.
bool ReadDropFiles(const BYTE* block, SIZE_T size, NodeList<WideString>& paths);

// The object map: one row per creatable class. CVelmountCopyMoveExtension is the only one.
#pragma once

#include "module/ComModule.h"
#include "module/ComObject.h"

class CVelmountCopyMoveExtension;

// Bounds of the array of row pointers (first, one past the last).
void GetObjectMap(ObjectMapEntry**& first, ObjectMapEntry**& last);

template <> struct ComClassTraits<CVelmountCopyMoveExtension>
{
    static const InterfaceMapEntry* Entries();
    static void FinalRelease(CVelmountCopyMoveExtension& object);
};

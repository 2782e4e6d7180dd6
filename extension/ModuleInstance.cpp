// The library's instance handle. The module's entry function sets it; until then (and in a program that links
// the extension directly) the program sets it to its own module.
#include "extension/CopyMoveExtension.h"

HINSTANCE g_moduleInstance = nullptr;

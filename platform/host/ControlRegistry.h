// Test control of the stand-in's registry.
#pragma once

#include "platform/host/Types.h"

// Empties every hive (open handles to old keys then report ERROR_KEY_DELETED).
WINBASEAPI void VmHostRegistryReset(void);
// Applies a .reg text ("Windows Registry Editor Version 5.00", UTF-8): [key] and [-key] sections, "name"=...
// and @=... lines with string, dword:, hex:, hex(N): and - (delete) values. Returns FALSE on a line it can't
// read (what came before stays applied).
WINBASEAPI BOOL VmHostRegistryImport(const char* regText);
// Writes the keys under a root path such as "HKEY_LOCAL_MACHINE\\Software\\Classes" as .reg text (UTF-8) into
// `out` (up to `size` bytes, zero-terminated). Returns the length the full text needs, without the
// terminator.
WINBASEAPI DWORD VmHostRegistryExport(const char* rootPath, char* out, DWORD size);

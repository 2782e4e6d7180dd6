// Shared pieces of ShellHost's commands.
#pragma once

#include "platform/Win32.h"

#include <string>

class CVelmountCopyMoveExtension;
struct DriveInfo;

typedef HRESULT(STDMETHODCALLTYPE* GetClassObjectEntry)(REFCLSID, REFIID, LPVOID*);

// The extension's class, as the registry and DllGetClassObject know it.
extern const CLSID CLSID_Extension;

template <class Entry> Entry Export(HMODULE library, const char* name)
{
    return reinterpret_cast<Entry>(reinterpret_cast<void (*)()>(GetProcAddress(library, name)));
}

std::string Hex(HRESULT hr);
std::basic_string<WCHAR> Widen(const std::string& text);
std::string Narrow(const WCHAR* text);

// `ShellHost explain PATH`: the marker that decides PATH's menus, and why each item is there or not.
int Explain(const std::string& path);
// The marker that decides the menus of `path` (a folder, or an item by its folder), read with the extension's
// own code; null when there is none or it cannot be read.
const DriveInfo* FindMarker(CVelmountCopyMoveExtension& object, LPCWSTR path, bool folder);

// `ShellHost doctor [PATH]`: every link from the registered class to the service, the first broken one named.
// Writes nothing. Returns 0 when everything a menu and an operation need holds; `json` for tools.
int Doctor(const std::string& path, bool json);

// Reading and clearing parts of the registry for the registration tests, through the registry API itself, so
// the same checks run against the stand-in and against Windows (or Wine).
#pragma once

#include "platform/Win32.h"

#include <string>
#include <vector>

typedef std::basic_string<WCHAR> WText;

std::string Narrow(const WCHAR* text);
// "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}" in lower case, as the registry scripts write a GUID.
std::string GuidText(const GUID& guid);
WText Widen(const std::string& text);

// Every key and value below `path` (the key itself included), one line each, sorted:
//   "sub\key"                         a key
//   "sub\key : name = SZ:text"        a value (the default value's name is @); DWORD:n, BINARY:hex,
//   MULTI_SZ:a|b
// Empty when the key doesn't exist.
std::vector<std::string> DumpKey(HKEY root, const WCHAR* path);
bool KeyExists(HKEY root, const WCHAR* path);
// Removes the key and everything below it; a missing key is fine.
void DeleteTree(HKEY root, const WCHAR* path);
// Creates the key (and its parents) and, when `value` isn't null, sets the string value `valueName` (null:
// the default value).
void SetString(HKEY root, const WCHAR* path, const WCHAR* valueName, const WCHAR* value);

// Shared pieces of ShellHost's commands.
#pragma once

#include "platform/Win32.h"

#include <string>

std::basic_string<WCHAR> Widen(const std::string& text);
std::string Narrow(const WCHAR* text);

// `ShellHost explain PATH`: the marker that decides PATH's menus, and why each item is there or not.
int Explain(const std::string& path);

// The one header product code includes for the operating system. On Windows it is the SDK; on the host build
// it is our stand-in, which keeps Win32's names, sizes, constants and error codes bit for bit.
#pragma once

#ifdef _WIN32
#include <winsock2.h>
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
#include <shellapi.h>
#include <shlobj.h>
#include <shobjidl.h>
#include <shlwapi.h>
#include <sddl.h>
#include <versionhelpers.h>
#else
#include "platform/host/Types.h"
#include "platform/host/Kernel.h"
#include "platform/host/Com.h"
// Further areas of the stand-in (files, registry, pipes, menus, windows, shell, resources...) each live in a
// header of their own under host/; listing them here keeps product code on this single include.
#if __has_include("platform/host/Handles.h")
#include "platform/host/Handles.h"
#endif
#if __has_include("platform/host/Files.h")
#include "platform/host/Files.h"
#endif
#if __has_include("platform/host/Registry.h")
#include "platform/host/Registry.h"
#endif
#if __has_include("platform/host/Identity.h")
#include "platform/host/Identity.h"
#endif
#if __has_include("platform/host/Shell.h")
#include "platform/host/Shell.h"
#endif
#if __has_include("platform/host/Ui.h")
#include "platform/host/Ui.h"
#endif
#if __has_include("platform/host/Input.h")
#include "platform/host/Input.h"
#endif
#if __has_include("platform/host/Gdi.h")
#include "platform/host/Gdi.h"
#endif
#if __has_include("platform/host/Pipes.h")
#include "platform/host/Pipes.h"
#endif
#if __has_include("platform/host/Threads.h")
#include "platform/host/Threads.h"
#endif
#if __has_include("platform/host/ComRuntime.h")
#include "platform/host/ComRuntime.h"
#endif
#if __has_include("platform/host/ShellItems.h")
#include "platform/host/ShellItems.h"
#endif
#if __has_include("platform/host/MessageBox.h")
#include "platform/host/MessageBox.h"
#endif
#if __has_include("platform/host/Resources.h")
#include "platform/host/Resources.h"
#endif
#if __has_include("platform/host/Loader.h")
#include "platform/host/Loader.h"
#endif
#if __has_include("platform/host/OleAut.h")
#include "platform/host/OleAut.h"
#endif
#if __has_include("platform/host/System.h")
#include "platform/host/System.h"
#endif
#endif

// Classes the stand-in provides itself, as Windows' own DLLs do; activated through CoCreateInstance.
#pragma once

#include "platform/host/Com.h"

namespace VmHost
{
HRESULT CreateProgressDialog(REFIID iid, void** object);
}

// Shell items made from parsing names. An item carries its path and gives it back from GetDisplayName. A name
// that Windows would refuse for its characters (< > | " * ?, or empty) fails with ERROR_INVALID_NAME as an
// HRESULT; the stand-in does not look whether the path exists.
#pragma once

#include "platform/host/Com.h"

struct IBindCtx;

WINBASEAPI HRESULT SHCreateItemFromParsingName(PCWSTR path, IBindCtx* bindContext, REFIID iid, void** item);

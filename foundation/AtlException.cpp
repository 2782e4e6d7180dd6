#include "foundation/AtlException.h"

void AtlThrow(HRESULT hr)
{
    throw CAtlException(hr);
}

#include "platform/host/Com.h"

#include <cstdlib>

LPVOID CoTaskMemAlloc(SIZE_T bytes) { return std::malloc(bytes ? bytes : 1); }
LPVOID CoTaskMemRealloc(LPVOID memory, SIZE_T bytes) { return std::realloc(memory, bytes ? bytes : 1); }
void CoTaskMemFree(LPVOID memory) { std::free(memory); }

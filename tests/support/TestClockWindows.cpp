#ifdef _WIN32
#include "tests/support/TestClock.h"

namespace TestSupport
{
bool CanSetClock()
{
    return false;
}
void SetClock(ULONGLONG) {}
void AdvanceClock(ULONGLONG) {}
void UseRealClock() {}
} // namespace TestSupport
#endif

#include "foundation/BinMap.h"

const UINT g_binMapPrimes[61] = {
    17,      23,      29,      37,       41,       53,        67,      83,      103,     131,     163,
    211,     257,     331,     409,      521,      647,       821,     1031,    1291,    1627,    2053,
    2591,    3251,    4099,    5167,     6521,     8209,      10331,   13007,   16411,   20663,   26017,
    32771,   41299,   52021,   65537,    82571,    104033,    131101,  165161,  208067,  262147,  330287,
    416147,  524309,  660563,  832291,   1048583,  1321139,   1664543, 2097169, 2642257, 3329023, 4194319,
    5284493, 6658049, 8388617, 10568993, 13316089, 0xFFFFFFFF};

UINT BinMapNextBinCount(size_t elements, float optimalLoad) noexcept
{
    float wanted = static_cast<float>(elements) / optimalLoad;
    UINT target = wanted >= 4294967295.0f ? 0xFFFFFFFFu : static_cast<UINT>(wanted);
    if (target <= 17)
        return 17;
    for (const UINT* prime = g_binMapPrimes;; ++prime)
        if (*prime == 0xFFFFFFFF)
            return target;
        else if (*prime >= target)
            return *prime;
}

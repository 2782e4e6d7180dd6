// BinMap lookups against std::unordered_map over the same keys: the lower-cased folder paths that the drive
// cache holds, every one of them found once per iteration.
#include "bench/Baseline.h"
#include "foundation/BinMap.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace
{
void BinMapLookups(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    std::vector<WideString> keys;
    std::vector<std::u16string> plainKeys;
    BinMap<int> map;
    std::unordered_map<std::u16string, int> plainMap;
    for (int i = 0; i < count; ++i)
    {
        WideString key;
        key.Format(TEXT("v:\\photos\\%d\\raw"), i);
        keys.push_back(key);
        plainKeys.emplace_back(reinterpret_cast<const char16_t*>(key.GetString()), key.GetLength());
        map.SetAt(key, i);
        plainMap.emplace(plainKeys.back(), i);
    }
    long found = 0;
    RunAgainstBaseline(
        state,
        [&]
        {
            for (const WideString& key : keys)
            {
                int value = 0;
                found += map.Lookup(key, value) ? value : -1;
            }
        },
        [&]
        {
            for (const std::u16string& key : plainKeys)
            {
                auto hit = plainMap.find(key);
                found += hit != plainMap.end() ? hit->second : -1;
            }
        });
    benchmark::DoNotOptimize(found);
    state.SetItemsProcessed(state.iterations() * count);
}
} // namespace

BENCHMARK(BinMapLookups)->Arg(16)->Arg(1000)->Arg(100000)->UseManualTime();

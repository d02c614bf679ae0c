// Writing and reading binary property lists, and decoding a keyed archive, as they grow: the
// installed libplist writes binary lists in time quadratic in their containers, the library's
// own writer in linear time.
#include "NSKeyedArchiver.h"
#include "PlistUtils.h"

#include <benchmark/benchmark.h>
#include <plist/plist.h>

namespace {

plist_t dictionaries(int n) {
    plist_t array = plist_new_array();
    for (int i = 0; i < n; ++i) {
        plist_t d = plist_new_dict();
        plist_dict_set_item(d, "n", plist_new_uint(uint64_t(i)));
        plist_array_append_item(array, d);
    }
    return array;
}

void BM_SaveBinary(benchmark::State& state) {
    plist_t array = dictionaries(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(PlistUtils::savaToBinFromByteArray(array));
    state.SetComplexityN(state.range(0));
    plist_free(array);
}
BENCHMARK(BM_SaveBinary)
    ->RangeMultiplier(4)
    ->Range(1 << 10, 1 << 18)
    ->Complexity()
    ->Unit(benchmark::kMillisecond);

void BM_LoadBinary(benchmark::State& state) {
    plist_t array = dictionaries(int(state.range(0)));
    const QByteArray bytes = PlistUtils::savaToBinFromByteArray(array);
    plist_free(array);
    for (auto _ : state) {
        void* root = nullptr;
        PlistUtils::loadFromData(bytes, root);
        plist_free(static_cast<plist_t>(root));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_LoadBinary)
    ->RangeMultiplier(4)
    ->Range(1 << 10, 1 << 18)
    ->Complexity()
    ->Unit(benchmark::kMillisecond);

// A keyed archive whose objects form one chain of references, as deep as it is long.
void BM_KeyedArchiveChain(benchmark::State& state) {
    const int n = int(state.range(0));
    plist_t objects = plist_new_array();
    plist_array_append_item(objects, plist_new_string("$null"));
    for (int i = 1; i <= n; ++i) {
        plist_t d = plist_new_dict();
        plist_dict_set_item(d, "next", plist_new_uid(uint64_t(i + 1)));
        plist_array_append_item(objects, d);
    }
    plist_array_append_item(objects, plist_new_string("bottom"));
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "root", plist_new_uid(1));
    plist_t archive = plist_new_dict();
    plist_dict_set_item(archive, "$top", top);
    plist_dict_set_item(archive, "$objects", objects);
    const QByteArray bytes = PlistUtils::savaToBinFromByteArray(archive);
    plist_free(archive);
    for (auto _ : state) {
        NSKeyedArchiver decoder;
        benchmark::DoNotOptimize(decoder.loadFromData(bytes));
    }
    state.SetComplexityN(n);
}
BENCHMARK(BM_KeyedArchiveChain)
    ->RangeMultiplier(4)
    ->Range(1 << 10, 1 << 16)
    ->Complexity()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();

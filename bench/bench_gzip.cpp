// Throughput of gzip compression and inflation and of AES-CBC over a few megabytes of chat text.
#include "CrypteHelper.h"
#include "GZipCompressor.h"
#include "OSUtils.h"

#include <benchmark/benchmark.h>

namespace {

QByteArray chatText(int size) {
    QByteArray text;
    for (int i = 0; text.size() < size; ++i)
        text +=
            "message " + QByteArray::number(i) + ": see you at " + QByteArray::number(i % 24) + " o'clock\n";
    return text.left(size);
}

void BM_GzipCompress(benchmark::State& state) {
    const QByteArray data = chatText(int(state.range(0)));
    QByteArray out;
    for (auto _ : state)
        benchmark::DoNotOptimize(GZipCompressor::gzipCompress(data, out, 6));
    state.SetBytesProcessed(int64_t(state.iterations()) * data.size());
}

void BM_GzipDecompress(benchmark::State& state) {
    const QByteArray data = chatText(int(state.range(0)));
    QByteArray gz, out;
    GZipCompressor::gzipCompress(data, gz, 6);
    for (auto _ : state)
        benchmark::DoNotOptimize(GZipCompressor::gzipDecompress(gz, out));
    state.SetBytesProcessed(int64_t(state.iterations()) * data.size());
}

void BM_UnCompressData(benchmark::State& state) {
    const QByteArray data = chatText(int(state.range(0)));
    QByteArray gz, out;
    GZipCompressor::gzipCompress(data, gz, 6);
    for (auto _ : state)
        benchmark::DoNotOptimize(OSUtils::unCompressData(gz, &out));
    state.SetBytesProcessed(int64_t(state.iterations()) * data.size());
}

void BM_AesRoundTrip(benchmark::State& state) {
    const QByteArray data = chatText(int(state.range(0))), key(32, 'k'), iv(16, 'i');
    for (auto _ : state)
        benchmark::DoNotOptimize(CrypteHelper::AESDecrypt(CrypteHelper::AESEncrypt(data, key, iv), key, iv));
    state.SetBytesProcessed(int64_t(state.iterations()) * data.size() * 2);
}

} // namespace

BENCHMARK(BM_GzipCompress)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GzipDecompress)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnCompressData)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AesRoundTrip)->Arg(1 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();

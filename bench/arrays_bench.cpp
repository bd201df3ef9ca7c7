// Marshalling and text conversion of 1 MB, each against memcpy of the same
// bytes in the same run. The ratios are printed after the benchmark table.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "orvanenaz.h"
#include "vapl.h"
#include "vaunicod.h"

namespace {

const UI4 kBytes = 1 << 20;

// Real time per iteration of each benchmark, by name, for the ratio table.
std::map<std::string, double> times;

void Record(benchmark::State& state) { state.SetBytesProcessed((int64_t)state.iterations() * kBytes); }

PAA MegaArray() {
  PAA p = VANewVector(VAI4, kBytes / 4);
  for (UI4 i = 0; i < kBytes / 4; i++) memcpy((char*)VADATA(p) + 4 * i, &i, 4);
  return p;
}

void BM_Memcpy(benchmark::State& state) {
  std::vector<char> src(kBytes, 'x'), dst(kBytes);
  for (auto _ : state) {
    memcpy(dst.data(), src.data(), kBytes);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  Record(state);
}

void BM_Pack(benchmark::State& state) {
  PAA p = MegaArray();
  std::vector<char> block(SizeAA(p));
  for (auto _ : state) {
    Pack(p, block.data());
    benchmark::DoNotOptimize(block.data());
    benchmark::ClobberMemory();
  }
  VAFree(p);
  Record(state);
}

void BM_Unpack(benchmark::State& state) {
  PAA p = MegaArray();
  std::vector<char> block(SizeAA(p));
  Pack(p, block.data());
  VAFree(p);
  for (auto _ : state) {
    UI4 off = 0;
    PAA q = Unpack(block.data(), &off);
    benchmark::DoNotOptimize(q);
    VAFree(q);
  }
  Record(state);
}

void BM_Utf8ToUcs4(benchmark::State& state) {
  // Mixed text: ASCII with two- and three-byte characters, 1 MB of UTF-8.
  std::string text;
  while (text.size() + 8 <= kBytes) text += "abc\xC3\xA9\xE2\x82\xAC";
  text.resize(kBytes, 'z');
  std::vector<UI1> out(kBytes * 4 + 4);
  for (auto _ : state) {
    ConvUnicode(UCS4, out.data(), (UI4)out.size(), UTF8, (UI1*)text.data(), kBytes, 0);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  Record(state);
}

BENCHMARK(BM_Memcpy);
BENCHMARK(BM_Pack);
BENCHMARK(BM_Unpack);
BENCHMARK(BM_Utf8ToUcs4);

// Collects each run's real time per iteration so the ratios can be printed.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) times[r.benchmark_name()] = r.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double base = times["BM_Memcpy"];
  if (base > 0) {
    printf("\nRatio to memcpy of 1 MB (same run):\n");
    for (const char* name : {"BM_Pack", "BM_Unpack", "BM_Utf8ToUcs4"})
      if (times.count(name)) printf("  %-16s %8.2f\n", name, times[name] / base);
  }
  benchmark::Shutdown();
  return 0;
}

// Throughput of the byte FIFO next to a plain memcpy of the same chunks:
// the cost of the lock and the two-array scheme per chunk.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "varnel.h"

namespace {

// One playback chunk is 2048 frames of stereo float: 16384 bytes.
void BM_FifoAppendRead(benchmark::State& state) {
  const size_t chunk = static_cast<size_t>(state.range(0));
  VNFIFODataBuffer fifo;
  std::vector<uint8_t> in(chunk, 1), out(chunk);
  for (auto _ : state) {
    fifo.appendBytes(in.data(), chunk);
    benchmark::DoNotOptimize(fifo.readBytes(out.data(), chunk));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * chunk));
}

void BM_MemcpyTwice(benchmark::State& state) {
  const size_t chunk = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> in(chunk, 1), middle(chunk), out(chunk);
  for (auto _ : state) {
    std::memcpy(middle.data(), in.data(), chunk);
    benchmark::ClobberMemory();
    std::memcpy(out.data(), middle.data(), chunk);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * chunk));
}

}  // namespace

BENCHMARK(BM_FifoAppendRead)->Arg(512)->Arg(4096)->Arg(16384);
BENCHMARK(BM_MemcpyTwice)->Arg(512)->Arg(4096)->Arg(16384);
BENCHMARK_MAIN();

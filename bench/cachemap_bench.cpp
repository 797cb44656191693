// Cost of choosing a cache server: a whole lookup on a three-ring map (key, hash, rank walk
// and the log line, written to /dev/null here), the key derivation alone, and the raw CRC-32
// over a 30-byte key.
//
// Every lookup logs a line on standard output, so the program points standard output at
// /dev/null while it runs and writes its report to the original standard output.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iostream>
#include <string>

#include "cachemap/cachemap.h"
#include "cachemap/crc32.h"

namespace {

constexpr const char* kThreeRings =
    "10.0.0.1:80,10.0.0.2:80,10.0.0.3:80;10.0.1.1:80,10.0.1.2:80;10.0.2.1:80";

const std::array<std::string, 4> kPaths = {
    "/_live/channel-0042/hd-1080p/segment-000123.ts",
    "/_live/channel-0043/sd-576p/segment-000124.ts",
    "/vod/movie-7781/audio-en/index.m3u8?token=abcdef",
    "/vod/movie-7782/video-hd/chunk-000001.ts",
};

void BM_GetServerFor(benchmark::State& state) {
  skerir::CacheMap map;
  map.setCacheMapString(kThreeRings);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.getServerFor(kPaths[i++ % kPaths.size()]));
  }
}
BENCHMARK(BM_GetServerFor);

void BM_GetServerForFallbackRing(benchmark::State& state) {
  skerir::CacheMap map;
  map.setCacheMapString(kThreeRings);
  for (const char* dead : {"10.0.0.1:80", "10.0.0.2:80", "10.0.0.3:80", "10.0.1.1:80"}) {
    map.invalidateServer(dead);
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.getServerFor(kPaths[i++ % kPaths.size()]));
  }
}
BENCHMARK(BM_GetServerForFallbackRing);

void BM_KeyFor(benchmark::State& state) {
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(skerir::CacheMap::keyFor(kPaths[i++ % kPaths.size()]));
  }
}
BENCHMARK(BM_KeyFor);

void BM_Crc32Key30(benchmark::State& state) {
  const std::string key = "channel-0042/hd-1080p/seg-0001";  // 30 bytes
  for (auto _ : state) {
    benchmark::DoNotOptimize(skerir::crc32(key));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * key.size());
}
BENCHMARK(BM_Crc32Key30);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  std::cout.flush();
  const int report_fd = ::dup(STDOUT_FILENO);
  const int null_fd = ::open("/dev/null", O_WRONLY);
  if (report_fd < 0 || null_fd < 0) {
    std::cerr << "cannot redirect standard output\n";
    return 1;
  }
  ::dup2(null_fd, STDOUT_FILENO);
  ::close(null_fd);
  std::ofstream report("/dev/fd/" + std::to_string(report_fd));

  benchmark::ConsoleReporter reporter(::isatty(report_fd)
                                          ? benchmark::ConsoleReporter::OO_ColorTabular
                                          : benchmark::ConsoleReporter::OO_Tabular);
  reporter.SetOutputStream(report.is_open() ? static_cast<std::ostream*>(&report) : &std::cerr);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

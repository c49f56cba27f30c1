// Measures the steps that process one 100 ms line, each separately and with all data in the cache.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bench/Load.h"
#include "core/Base64.h"
#include "core/HelperCommand.h"
#include "core/JSONLineWriter.h"
#include "core/PCMDecoding.h"
#include "core/VectorKernels.h"
#include "legacy/LegacyRecognitionChannel.h"
#include "platform/posix/MemoryAudioBuffers.h"

namespace palaver::bench {

namespace {

// Returns one line without its line feed.
std::string oneLine() {
  std::string line = Load(1).line(3);
  line.pop_back();
  return line;
}

std::string oneChunk() {
  std::string line = oneLine();
  return std::string(decodeHelperCommand(line.data(), line.size()).pcmBase64.value());
}

// Decoding in place overwrites only the characters that end the texts of an unescaped line, so each round
// starts from a copy. This benchmark measures the cost of that copy.
void copyLine(benchmark::State& state) {
  const std::string line = oneLine();
  std::vector<char> bytes(line.size() + decodingPadding);
  for (auto _ : state) {
    std::memcpy(bytes.data(), line.data(), line.size());
    benchmark::DoNotOptimize(bytes.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(copyLine);

void copyAndDecodeLine(benchmark::State& state) {
  const std::string line = oneLine();
  std::vector<char> bytes(line.size() + decodingPadding);
  for (auto _ : state) {
    std::memcpy(bytes.data(), line.data(), line.size());
    const auto command = decodeHelperCommand(bytes.data(), line.size());
    benchmark::DoNotOptimize(&command);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(copyAndDecodeLine);

void findLineFeed(benchmark::State& state) {
  const std::string line = oneLine() + "\n";
  for (auto _ : state) {
    const void* found = std::memchr(line.data(), '\n', line.size());
    benchmark::DoNotOptimize(found);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(findLineFeed);

void base64Of4268Characters(benchmark::State& state, const VectorKernels& kernels) {
  const std::string text = oneChunk();
  std::vector<std::uint8_t> bytes(base64BufferSize(text.size()));
  for (auto _ : state) {
    auto count = decodeBase64(text, bytes.data(), kernels);
    benchmark::DoNotOptimize(count);
    benchmark::ClobberMemory();
  }
}

void findEndOf4268Characters(benchmark::State& state, const VectorKernels& kernels) {
  const std::string text = oneChunk() + '"' + std::string(vectorPadding, ' ');
  for (auto _ : state) {
    const char* end = kernels.findTextEnd(text.data(), text.data() + text.size() - vectorPadding);
    benchmark::DoNotOptimize(end);
    benchmark::ClobberMemory();
  }
}

void squaresOf1600Samples(benchmark::State& state, const VectorKernels& kernels) {
  MemoryAudioBuffers audioBuffers;
  const auto buffer = makePCMBuffer(audioBuffers, oneChunk());
  for (auto _ : state) {
    auto sum = kernels.sumOfSquares(buffer->int16ChannelData(), buffer->frameLength());
    benchmark::DoNotOptimize(sum);
    benchmark::ClobberMemory();
  }
}

// Measures each loop with every implementation that this processor runs.
const bool areKernelsRegistered = [] {
  for (const VectorKernels* const kernels : supportedVectorKernels()) {
    const auto name = [kernels](const char* loop) {
      return std::string(loop) + "/" + std::string(kernels->name);
    };
    const auto add = [&](const char* loop, auto function) {
      benchmark::RegisterBenchmark(
          name(loop).c_str(), [function, kernels](benchmark::State& state) { function(state, *kernels); });
    };
    add("findEndOf4268Characters", findEndOf4268Characters);
    add("base64Of4268Characters", base64Of4268Characters);
    add("squaresOf1600Samples", squaresOf1600Samples);
  }
  return true;
}();

void makeBuffer(benchmark::State& state) {
  const std::string text = oneChunk();
  MemoryAudioBuffers audioBuffers;
  for (auto _ : state) {
    auto buffer = makePCMBuffer(audioBuffers, text);
    benchmark::DoNotOptimize(buffer.get());
  }
}
BENCHMARK(makeBuffer);

void loudnessOf1600Samples(benchmark::State& state) {
  MemoryAudioBuffers audioBuffers;
  const auto buffer = makePCMBuffer(audioBuffers, oneChunk());
  for (auto _ : state) {
    double loudness = LegacyRecognitionChannel::normalizedRms(*buffer);
    benchmark::DoNotOptimize(loudness);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(loudnessOf1600Samples);

void serializeFinal(benchmark::State& state) {
  const Event event{{"type", "transcript.final"},
                    {"sessionId", "6E1F9B2C-5A7D-4C3E-A1B0-9D8C7B6A5F4E"},
                    {"source", "remote"},
                    {"utteranceId", "0F1E2D3C-4B5A-4978-8695-A4B3C2D1E0F9"},
                    {"text", "それでは、来週の会議の予定を確認しましょう。"},
                    {"startedAt", 1763674839123.25},
                    {"speechEndedAt", 1763674842873.5},
                    {"transcribedAt", 1763674843001.125},
                    {"endpointReason", "silence"}};
  for (auto _ : state) {
    auto line = serializeEvent(event);
    benchmark::DoNotOptimize(line.data());
  }
}
BENCHMARK(serializeFinal);

}  // namespace

}  // namespace palaver::bench

BENCHMARK_MAIN();

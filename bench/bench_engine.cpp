// The trim engine on 8000 × 6000 rasters: building the tolerance index against
// a plain read of the same bytes, answering a tolerance from the index against
// the plain scan, and libvips' find_trim on the same pixels.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <vips/vips8>

#include "engine/cropengine.h"
#include "engine/toleranceindex.h"

using namespace orvane;

namespace {

constexpr int kWidth = 8000;
constexpr int kHeight = 6000;
constexpr int kInset = 700;

enum Kind { TransparentBorder, WhiteBorder, ContentToEdges };
const char* const kKindNames[] = {"transparent border", "white border", "content to the edges"};

// Content is a noisy, mostly dark picture; the border is transparent or white.
vips::VImage makeImage(Kind kind)
{
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(kWidth) * kHeight * 4);
    std::mt19937 rng(42);
    const int inset = kind == ContentToEdges ? 0 : kInset;
    for (int y = 0; y < kHeight; ++y) {
        std::uint8_t* row = bytes.data() + static_cast<std::size_t>(y) * kWidth * 4;
        for (int x = 0; x < kWidth; ++x) {
            std::uint8_t* p = row + x * 4;
            const bool inside = x >= inset && x < kWidth - inset && y >= inset && y < kHeight - inset;
            if (inside) {
                const std::uint32_t r = rng();
                p[0] = std::uint8_t(r);
                p[1] = std::uint8_t(r >> 8);
                p[2] = std::uint8_t(r >> 16);
                p[3] = 255;
            } else if (kind == TransparentBorder) {
                std::memset(p, 0, 4);
            } else {
                std::memset(p, 255, 4);
            }
        }
    }
    return vips::VImage::new_from_memory(bytes.data(), bytes.size(), kWidth, kHeight, 4, VIPS_FORMAT_UCHAR)
        .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB))
        .copy_memory();
}

struct Fixture {
    vips::VImage image;
    std::optional<CropEngine::Buffer> buffer;
};

Fixture& fixture(Kind kind)
{
    static std::map<Kind, Fixture> fixtures;
    auto it = fixtures.find(kind);
    if (it == fixtures.end()) {
        it = fixtures.emplace(kind, Fixture{makeImage(kind), std::nullopt}).first;
        it->second.buffer = CropEngine::Buffer::make(it->second.image);
    }
    return it->second;
}

// The index pass alone, on the raster a buffer already holds: as Buffer::make
// runs it (row bands on the threads the engine picks) and on one thread.
void indexBuild(benchmark::State& state, unsigned threads)
{
    const auto& buffer = *fixture(Kind(state.range(0))).buffer;
    for (auto _ : state) {
        auto index = ToleranceIndex::build(buffer.pixels(), kWidth, kHeight, threads);
        benchmark::DoNotOptimize(index);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(buffer.byteCount()));
    state.SetLabel(kKindNames[state.range(0)]);
}

void BM_IndexBuild(benchmark::State& state)
{
    indexBuild(state, ToleranceIndex::threadsFor(std::size_t{kWidth} * kHeight));
}

void BM_IndexBuildOneThread(benchmark::State& state) { indexBuild(state, 1); }

void BM_MemoryRead(benchmark::State& state)
{
    const auto& buffer = *fixture(Kind(state.range(0))).buffer;
    const std::size_t words = buffer.byteCount() / 8;
    for (auto _ : state) {
        std::uint64_t sum = 0;
        const std::uint8_t* p = buffer.pixels();
        for (std::size_t i = 0; i < words; ++i) {
            std::uint64_t w;
            std::memcpy(&w, p + i * 8, 8);
            sum += w;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(buffer.byteCount()));
    state.SetLabel(kKindNames[state.range(0)]);
}

void BM_BufferMake(benchmark::State& state)
{
    const auto& image = fixture(Kind(state.range(0))).image;
    std::size_t extra = 0;
    for (auto _ : state) {
        auto buffer = CropEngine::Buffer::make(image);
        extra = buffer->extraBytes();
        benchmark::DoNotOptimize(buffer);
    }
    state.counters["extra_MB"] = double(extra) / 1e6;
    state.SetLabel(kKindNames[state.range(0)]);
}

void BM_PlainScan(benchmark::State& state)
{
    const auto& buffer = *fixture(Kind(state.range(0))).buffer;
    for (auto _ : state)
        benchmark::DoNotOptimize(CropEngine::contentRectByScan(buffer, 25));
    state.SetLabel(kKindNames[state.range(0)]);
}

void BM_IndexAnswer(benchmark::State& state)
{
    const auto& buffer = *fixture(Kind(state.range(0))).buffer;
    double t = 0.05;
    for (auto _ : state) {
        benchmark::DoNotOptimize(CropEngine::contentRect(buffer, t));
        t = t >= 100 ? 0.05 : t + 0.37; // a slider being dragged
    }
    state.SetLabel(kKindNames[state.range(0)]);
}

void BM_FindTrim(benchmark::State& state)
{
    const auto& buffer = *fixture(Kind(state.range(0))).buffer;
    // The same premultiplied pixels, wrapped without copying. find_trim
    // compares against the corner pixel, flattening alpha onto it.
    const vips::VImage raster = vips::VImage::new_from_memory(const_cast<std::uint8_t*>(buffer.pixels()),
                                                              buffer.byteCount(), kWidth, kHeight, 4,
                                                              VIPS_FORMAT_UCHAR)
                                    .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
    for (auto _ : state) {
        int top = 0, width = 0, height = 0;
        benchmark::DoNotOptimize(raster.find_trim(&top, &width, &height));
    }
    state.SetLabel(kKindNames[state.range(0)]);
}

// Wall time decides; CPU time is that of the whole process (all threads), which
// says more than wall time on a machine busy with other work.
#define ENGINE_BENCHMARK(name) \
    BENCHMARK(name)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()
ENGINE_BENCHMARK(BM_IndexBuild);
ENGINE_BENCHMARK(BM_IndexBuildOneThread);
ENGINE_BENCHMARK(BM_MemoryRead);
ENGINE_BENCHMARK(BM_BufferMake);
ENGINE_BENCHMARK(BM_PlainScan);
ENGINE_BENCHMARK(BM_FindTrim);
BENCHMARK(BM_IndexAnswer)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond)->UseRealTime()->MeasureProcessCPUTime();

// Keeps every run's time in milliseconds for the ratios printed at the end.
class RecordingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        // With --benchmark_repetitions the median stands for the run.
        for (const Run& run : runs) {
            const bool repeated = run.repetitions > 1;
            if (repeated ? run.aggregate_name != "median" : run.run_type != Run::RT_Iteration)
                continue;
            const std::string name = run.run_name.function_name + "/" + run.run_name.args;
            const double toMs = 1e3 / benchmark::GetTimeUnitMultiplier(run.time_unit);
            wall[name] = run.GetAdjustedRealTime() * toMs;
            cpu[name] = run.GetAdjustedCPUTime() * toMs;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> wall;
    std::map<std::string, double> cpu;
};

void printRatios(const char* title, const std::map<std::string, double>& times)
{
    const auto time = [&](const char* name, int kind) -> double {
        const auto it = times.find(std::string(name) + "/" + std::to_string(kind));
        return it == times.end() ? 0 : it->second;
    };
    const auto ratio = [](double a, double b) { return b > 0 ? a / b : 0.0; };
    std::printf("\nRatios of %s (%d x %d RGBA):\n", title, kWidth, kHeight);
    std::printf("%-22s %11s %15s %10s %12s %16s\n", "raster", "index/read", "1-thread/read", "make/read",
                "scan/answer", "find_trim/index");
    for (int kind = 0; kind < 3; ++kind) {
        const double read = time("BM_MemoryRead", kind);
        const double index = time("BM_IndexBuild", kind);
        std::printf("%-22s %11.2f %15.2f %10.2f %12.0f %16.1f\n", kKindNames[kind], ratio(index, read),
                    ratio(time("BM_IndexBuildOneThread", kind), read), ratio(time("BM_BufferMake", kind), read),
                    ratio(time("BM_PlainScan", kind), time("BM_IndexAnswer", kind)),
                    ratio(time("BM_FindTrim", kind), index));
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    vips_cache_set_max(0);
    benchmark::Initialize(&argc, argv);
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    printRatios("wall time", reporter.wall);
    printRatios("process CPU time", reporter.cpu);
    benchmark::Shutdown();
    vips_shutdown();
    return 0;
}

// Configuration map benchmarks: load and save of a realistic configuration
// (the shipped packaging/Kestrava.ini, and a synthetic file of 2000 keys with
// comments, blank lines and quoted values), getConf/setConf throughput with
// one and two threads, and the heap a loaded map takes. The files are copies
// in a scratch directory; the shipped file is never written.
#include <benchmark/benchmark.h>

#include "bench/BenchMain.h"

#include <cstdio>
#include <fstream>
#include <malloc.h>
#include <memory>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "config/FileMap.h"

#ifndef KESTRAVA_SOURCE_DIR
#define KESTRAVA_SOURCE_DIR "."
#endif

namespace {

const int kSyntheticKeys = 2000;

size_t heapInUse() { return mallinfo2().uordblks; }

// One configuration file under test: its path, its keys in file order and the
// key a console change would touch.
struct ConfigFile {
    std::string path;
    std::vector<std::string> keys;
    std::string changedKey;
    double heapBytes = 0;  // heap of a loaded FileMap
    std::unique_ptr<FileMap> map;  // shared by the lookup benchmarks
};

std::string gScratch;
ConfigFile gShipped;
ConfigFile gSynthetic;

// The keys of a key=value file as the map stores them (comment lines and
// lines without "=" skipped, keys trimmed).
std::vector<std::string> keysOf(const std::string& path)
{
    std::vector<std::string> keys;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        std::string key = line.substr(0, eq);
        FileMap::trimming(&key);
        keys.push_back(key);
    }
    return keys;
}

// A file shaped like a large operator-kept configuration: sections with
// comment headers, blank lines, numbers, paths, quoted values with blanks
// and values holding "=".
void writeSynthetic(const std::string& path)
{
    std::ofstream out(path);
    out << "# Synthetic configuration of " << kSyntheticKeys << " keys for the benchmark.\n"
        << "# Comments and blank lines are kept by every save.\n\n";
    for (int i = 0; i < kSyntheticKeys; ++i) {
        if (i % 25 == 0)
            out << "\n# ---- Section " << i / 25 << " ----\n# Settings " << i << " to " << i + 24
                << " of this section.\n";
        char key[32];
        std::snprintf(key, sizeof key, "Setting%04d", i);
        switch (i % 4) {
        case 0:
            out << key << "=" << i * 7 << "\n";
            break;
        case 1:
            out << key << "=/opt/kestrava/data/file" << i << ".dat\n";
            break;
        case 2:
            out << "  " << key << " = \"Group " << i << " of the UPS room \"\n";
            break;
        default:
            out << key << "=mode=" << i % 10 << ";level=" << i % 3 << "\r\n";
            break;
        }
    }
}

bool copyFile(const std::string& from, const std::string& to)
{
    std::ifstream in(from, std::ios::binary);
    if (!in)
        return false;
    std::ofstream out(to, std::ios::binary);
    out << in.rdbuf();
    return static_cast<bool>(out);
}

void prepare(ConfigFile* file, const std::string& changedKey)
{
    file->keys = keysOf(file->path);
    file->changedKey = changedKey;
    const size_t before = heapInUse();
    file->map.reset(new FileMap(file->path));
    const size_t after = heapInUse();
    file->heapBytes = after > before ? static_cast<double>(after - before) : 0.0;
}

ConfigFile* fileOf(int which) { return which == 0 ? &gShipped : &gSynthetic; }

// Reading the file again into a map (start-up, message-file switch).
void BM_Load(benchmark::State& state, int which)
{
    ConfigFile* file = fileOf(which);
    FileMap map(file->path);
    for (auto _ : state)
        benchmark::DoNotOptimize(map.load());
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(file->keys.size()));
    state.counters["keys"] = static_cast<double>(file->keys.size());
    state.counters["heap_kB"] = file->heapBytes / 1024.0;
}
BENCHMARK_CAPTURE(BM_Load, shipped, 0)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Load, synthetic2000, 1)->Unit(benchmark::kMicrosecond);

// save() with nothing changed: the file is read, rebuilt line by line and
// written back.
void BM_SaveUnchanged(benchmark::State& state, int which)
{
    ConfigFile* file = fileOf(which);
    FileMap map(file->path);
    for (auto _ : state)
        benchmark::DoNotOptimize(map.save());
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(file->keys.size()));
}
BENCHMARK_CAPTURE(BM_SaveUnchanged, shipped, 0)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_SaveUnchanged, synthetic2000, 1)->Unit(benchmark::kMicrosecond);

// What a console change costs: one setConfNum and the save that persists it.
void BM_SetAndSave(benchmark::State& state, int which)
{
    ConfigFile* file = fileOf(which);
    FileMap map(file->path);
    int value = 0;
    for (auto _ : state) {
        map.setConfNum(file->changedKey, ++value % 100);
        benchmark::DoNotOptimize(map.save());
    }
}
BENCHMARK_CAPTURE(BM_SetAndSave, shipped, 0)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_SetAndSave, synthetic2000, 1)->Unit(benchmark::kMicrosecond);

// getConf over all keys of the file in turn; with two threads both share one
// map and its lock, as the daemon's threads do.
void BM_GetConf(benchmark::State& state, int which)
{
    ConfigFile* file = fileOf(which);
    const std::vector<std::string>& keys = file->keys;
    size_t i = static_cast<size_t>(state.thread_index()) * 7;
    for (auto _ : state) {
        std::string v = file->map->getConf(keys[i % keys.size()]);
        benchmark::DoNotOptimize(v);
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_GetConf, shipped, 0)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK_CAPTURE(BM_GetConf, synthetic2000, 1)->Threads(1)->Threads(2)->UseRealTime();

// setConf of existing keys with short values; setConfNum formats a number.
void BM_SetConf(benchmark::State& state)
{
    const std::vector<std::string>& keys = gSynthetic.keys;
    size_t i = 0;
    for (auto _ : state) {
        gSynthetic.map->setConf(keys[i % keys.size()], "value");
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SetConf);

void BM_SetConfNum(benchmark::State& state)
{
    const std::vector<std::string>& keys = gSynthetic.keys;
    size_t i = 0;
    for (auto _ : state) {
        gSynthetic.map->setConfNum(keys[i % keys.size()], static_cast<int>(i));
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SetConfNum);

bool setUp()
{
    char dir[] = "/tmp/kestrava-bench-filemap-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        std::perror("mkdtemp");
        return false;
    }
    gScratch = dir;
    const std::string shippedSource = std::string(KESTRAVA_SOURCE_DIR) + "/packaging/Kestrava.ini";
    gShipped.path = gScratch + "/Kestrava.ini";
    if (!copyFile(shippedSource, gShipped.path)) {
        std::fprintf(stderr, "cannot copy %s into %s\n", shippedSource.c_str(), gScratch.c_str());
        return false;
    }
    gSynthetic.path = gScratch + "/Synthetic.ini";
    writeSynthetic(gSynthetic.path);
    prepare(&gShipped, "DumpLogRate");
    prepare(&gSynthetic, "Setting1000");
    return true;
}

void tearDown()
{
    gShipped.map.reset();
    gSynthetic.map.reset();
    unlink(gShipped.path.c_str());
    unlink(gSynthetic.path.c_str());
    rmdir(gScratch.c_str());
}

} // namespace

int main(int argc, char** argv)
{

    std::printf("Kestrava configuration map: FileMap load/save/getConf/setConf.\n"
                "shipped = packaging/Kestrava.ini, synthetic2000 = %d keys with comments and quoted values.\n\n",
                kSyntheticKeys);
    if (!initBenchmarks(argc, argv))
        return 1;
    if (!setUp())
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::ifstream shipped(gShipped.path), synthetic(gSynthetic.path);
    std::stringstream a, b;
    a << shipped.rdbuf();
    b << synthetic.rdbuf();
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    std::printf("\nLoaded maps: shipped %zu keys, %zu-byte file, %.1f kB heap; synthetic %zu keys, "
                "%zu-byte file, %.1f kB heap. Peak RSS %ld kB.\n",
                gShipped.keys.size(), a.str().size(), gShipped.heapBytes / 1024.0, gSynthetic.keys.size(),
                b.str().size(), gSynthetic.heapBytes / 1024.0, usage.ru_maxrss);
    tearDown();
    return 0;
}

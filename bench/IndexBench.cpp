// The repository's master index beside the map of locations it replaced:
// heap bytes a blob (glibc's mallinfo2, before and after building) and the
// time of a lookup, hit or miss, for the same blobs in packs of 2,000.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstring>
#include <memory>
#include <random>
#include <unordered_map>

#include "repository/Index.h"

using namespace qvhost::repo;

namespace {

constexpr size_t kBlobsPerPack = 2000;

std::vector<IndexedPack> Packs(size_t blobs) {
    std::mt19937_64 random(blobs);
    const auto randomId = [&random] {
        Id id;
        for (size_t i = 0; i < id.size(); i += 8) {
            const uint64_t word = random();
            std::memcpy(id.data() + i, &word, 8);
        }
        return id;
    };
    std::vector<IndexedPack> packs((blobs + kBlobsPerPack - 1) / kBlobsPerPack);
    for (size_t p = 0; p < packs.size(); ++p) {
        packs[p].pack = randomId();
        for (size_t b = 0; b < kBlobsPerPack && p * kBlobsPerPack + b < blobs; ++b) {
            PackEntry entry;
            entry.id = randomId();
            entry.offset = static_cast<uint32_t>(b * 8000);
            entry.length = 8000;
            entry.plainLength = 7900;
            packs[p].blobs.push_back(entry);
        }
    }
    return packs;
}

size_t HeapInUse() { return mallinfo2().uordblks; }

// The layout before: every pack's entries kept, and a map from each blob to
// a copy of its location.
struct MapIndex {
    void Add(const IndexedPack& pack) {
        for (const PackEntry& blob : pack.blobs) blobs.emplace(blob.id, BlobLocation{pack.pack, blob});
        all.push_back(pack);
    }
    const BlobLocation* Find(const Id& id) const {
        const auto found = blobs.find(id);
        return found == blobs.end() ? nullptr : &found->second;
    }
    std::unordered_map<Id, BlobLocation, IdHash> blobs;
    std::vector<IndexedPack> all;
};

template <class Index>
void Lookups(benchmark::State& state) {
    const size_t blobs = static_cast<size_t>(state.range(0));
    const std::vector<IndexedPack> packs = Packs(blobs);
    const std::vector<IndexedPack> others = Packs(blobs + 1);  // ids no index holds
    const size_t before = HeapInUse();
    auto index = std::make_unique<Index>();
    for (const IndexedPack& pack : packs) index->Add(pack);
    const size_t after = HeapInUse();
    std::mt19937_64 random(7);
    size_t found = 0;
    for (auto _ : state) {
        const size_t pack = random() % packs.size();
        const IndexedPack& source = random() % 2 ? packs[pack] : others[pack];
        const Id& id = source.blobs[random() % source.blobs.size()].id;
        found += static_cast<bool>(index->Find(id));
        benchmark::DoNotOptimize(found);
    }
    state.counters["heap_bytes_per_blob"] = static_cast<double>(after - before) / static_cast<double>(blobs);
    state.counters["hits"] = benchmark::Counter(static_cast<double>(found), benchmark::Counter::kAvgIterations);
}

void BM_MasterIndex(benchmark::State& state) { Lookups<MasterIndex>(state); }
void BM_MapOfLocations(benchmark::State& state) { Lookups<MapIndex>(state); }

BENCHMARK(BM_MasterIndex)->Arg(200000)->Arg(1000000)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_MapOfLocations)->Arg(200000)->Arg(1000000)->Unit(benchmark::kNanosecond);

}  // namespace

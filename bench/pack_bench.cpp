// The stages of packing a log, each alone: the scrub, deflate (the packer's,
// and zlib and libdeflate alone at the same level), CRC-32 and the archive
// writer. Throughput in bytes of log text.
#include <benchmark/benchmark.h>
#include <libdeflate.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "platform/collect/Deflate.h"
#include "platform/collect/LogScrub.h"
#include "platform/collect/ZipWriter.h"

namespace {

// Log lines like the agent's, a third with a quoted address, their numbers
// drawn at random so that the text compresses like real logs (about 6:1).
std::string LogText(std::size_t size) {
    std::string text;
    std::uint64_t state = 0x9E3779B97F4A7C15ull;
    const auto next = [&state](std::uint64_t below) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return std::to_string(state % below);
    };
    while (text.size() < size) {
        text += "2024-05-01T12:" + next(60) + ":" + next(60) + "." + next(1000) + "Z [d] [" + next(9000) + "] ";
        if (next(3) == "0") {
            text += "Peer \"10." + next(256) + "." + next(256) + "." + next(256) + "\" answered in " + next(900) + " ms\n";
        } else {
            text += "Telemetry sync completed, " + next(500) + " records, sync point " + next(90000) + ", job " +
                    next(1ull << 32) + "\n";
        }
    }
    text.resize(size);
    return text;
}

const std::string& Piece() {
    static const std::string piece = LogText(1024 * 1024);
    return piece;
}

void BM_Scrub(benchmark::State& state) {
    const std::string& text = Piece();
    std::string out;
    for (auto _ : state) {
        out.clear();
        zep::collect::LogScrubber scrubber;
        scrubber.Feed(text, out);
        scrubber.Finish(out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_Scrub)->Unit(benchmark::kMillisecond);

// The deflate stage as the packer runs it: one 1 MiB piece through
// PieceDeflater (libdeflate), as a file's last piece (a complete stream) or
// a middle one (the stream reopened for the next piece: an inflate pass).
void BM_DeflatePiece(benchmark::State& state) {
    const std::string& text = Piece();
    const bool middle = state.range(0) != 0;
    zep::collect::PieceDeflater deflater;
    std::string out;
    for (auto _ : state) {
        out.clear();
        deflater.Deflate(text, !middle, out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
    state.counters["ratio"] = static_cast<double>(text.size()) / static_cast<double>(out.size());
}
BENCHMARK(BM_DeflatePiece)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The alternatives at the same level, whole piece: zlib (which could join
// pieces with a sync flush and a dictionary by itself) and libdeflate alone.
void BM_DeflateZlib(benchmark::State& state) {
    const std::string& text = Piece();
    z_stream z{};
    deflateInit2(&z, zep::collect::kDeflateLevel, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    std::vector<unsigned char> out(deflateBound(&z, text.size()));
    for (auto _ : state) {
        deflateReset(&z);
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
        z.avail_in = static_cast<uInt>(text.size());
        z.next_out = out.data();
        z.avail_out = static_cast<uInt>(out.size());
        deflate(&z, Z_FINISH);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
    state.counters["ratio"] = static_cast<double>(text.size()) / static_cast<double>(z.total_out);
    deflateEnd(&z);
}
BENCHMARK(BM_DeflateZlib)->Unit(benchmark::kMillisecond);

void BM_DeflateLibdeflate(benchmark::State& state) {
    const std::string& text = Piece();
    libdeflate_compressor* compressor = libdeflate_alloc_compressor(zep::collect::kDeflateLevel);
    std::vector<char> out(libdeflate_deflate_compress_bound(compressor, text.size()));
    std::size_t size = 0;
    for (auto _ : state) {
        size = libdeflate_deflate_compress(compressor, text.data(), text.size(), out.data(), out.size());
        benchmark::DoNotOptimize(out.data());
    }
    libdeflate_free_compressor(compressor);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
    state.counters["ratio"] = static_cast<double>(text.size()) / static_cast<double>(size == 0 ? 1 : size);
}
BENCHMARK(BM_DeflateLibdeflate)->Unit(benchmark::kMillisecond);

void BM_Crc32(benchmark::State& state) {
    const std::string& text = Piece();
    for (auto _ : state) benchmark::DoNotOptimize(zep::collect::Crc32(0, text));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_Crc32)->Unit(benchmark::kMicrosecond);

class NullOutput : public zep::platform::OutputFile {
public:
    bool Write(std::string_view data, zep::platform::FsStatus* = nullptr) override {
        benchmark::DoNotOptimize(data.data());
        return true;
    }
    bool Sync(zep::platform::FsStatus* = nullptr) override { return true; }
    bool SetModified(std::int64_t) override { return true; }
    bool Close(zep::platform::FsStatus* = nullptr) override { return true; }
};

// The writer alone (headers, SHA-256 of every byte, the central directory)
// over entries of range(0) deflated bytes each, 1 MiB of them per archive.
void BM_ZipWriter(benchmark::State& state) {
    const auto entrySize = static_cast<std::size_t>(state.range(0));
    const std::string deflated = Piece().substr(0, entrySize);
    const std::size_t entries = 1024 * 1024 / entrySize;
    std::vector<std::string> names;
    for (std::size_t i = 0; i < entries; ++i) names.push_back("ZEP/Log/Plugins/VPN/VpnClient." + std::to_string(i) + ".log");
    for (auto _ : state) {
        NullOutput out;
        zep::collect::ZipWriter writer(out);
        for (const auto& name : names) writer.AddFile(name, 1'700'000'000'000'000'000, 0x12345678, entrySize * 5, deflated);
        writer.Finish();
        benchmark::DoNotOptimize(writer.Sha256Hex().data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(entries * entrySize));
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(entries));
}
BENCHMARK(BM_ZipWriter)->Arg(512)->Arg(64 * 1024)->Unit(benchmark::kMillisecond);

}  // namespace

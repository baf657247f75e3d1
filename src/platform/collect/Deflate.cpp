#include "platform/collect/Deflate.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <climits>
#include <vector>

namespace zep::collect {
namespace {

// zlib counts in uInt; a piece is far smaller, a caller's data may not be.
constexpr std::size_t kMaxStep = UINT_MAX / 2;

// An empty stored block after the last block: a sync flush's marker. Its
// three header bits (not last, stored) are zero and follow the stream's
// last bit; the length and its complement start at the next byte.
constexpr char kEmptyStoredLength[] = {'\x00', '\x00', '\xFF', '\xFF'};

}  // namespace

struct PieceDeflater::State {
    libdeflate_compressor* compressor = nullptr;
    z_stream inflater{};
    bool inflaterReady = false;
    std::string scratch;  // inflated bytes, thrown away
    std::vector<char> compressed;

    ~State() {
        if (compressor != nullptr) libdeflate_free_compressor(compressor);
        if (inflaterReady) inflateEnd(&inflater);
    }

    // Reopens the complete stream `deflated`: clears the last block's
    // last-block bit and ends the stream with an empty stored block.
    bool LeaveOpen(std::string& deflated, std::size_t start) {
        if (!inflaterReady) {
            if (inflateInit2(&inflater, -15) != Z_OK) return false;
            inflaterReady = true;
            scratch.resize(64 * 1024);
        } else if (inflateReset(&inflater) != Z_OK) {
            return false;
        }
        const std::size_t size = deflated.size() - start;
        if (size > kMaxStep) return false;
        char* bytes = deflated.data() + start;
        inflater.next_in = reinterpret_cast<Bytef*>(bytes);
        inflater.avail_in = static_cast<uInt>(size);
        const auto bitAt = [&](std::uint64_t position) { return (bytes[position / 8] >> (position % 8)) & 1; };
        // Block by block: at each boundary the next block's first bit says
        // whether it is the last; the boundary after that one is the end.
        std::uint64_t lastBlock = 0;  // bit position of the last block's header
        std::uint64_t end = 0;        // bit position just past the stream
        bool inLast = size > 0 && bitAt(0) != 0;
        for (;;) {
            inflater.next_out = reinterpret_cast<Bytef*>(scratch.data());
            inflater.avail_out = static_cast<uInt>(scratch.size());
            const uLong before = inflater.total_in;
            const int result = inflate(&inflater, Z_BLOCK);
            if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) return false;
            if ((inflater.data_type & 128) == 0) {
                // Mid-block: only a full scratch buffer stops it there.
                if (inflater.avail_out != 0 || (inflater.avail_in == 0 && inflater.total_in == before)) return false;
                continue;
            }
            const std::uint64_t position =
                static_cast<std::uint64_t>(inflater.total_in) * 8 - static_cast<unsigned>(inflater.data_type & 7);
            if (inLast) {
                end = position;
                break;
            }
            if (position >= static_cast<std::uint64_t>(size) * 8) return false;  // ended without a last block
            lastBlock = position;
            inLast = bitAt(position) != 0;
        }
        bytes[lastBlock / 8] = static_cast<char>(bytes[lastBlock / 8] & ~(1 << (lastBlock % 8)));
        // Keep the bits up to `end` and room for three zero header bits, then pad.
        const std::size_t kept = static_cast<std::size_t>((end + 3 + 7) / 8);
        deflated.resize(start + kept, '\0');
        if (end % 8 != 0) {
            char& partial = deflated[start + static_cast<std::size_t>(end / 8)];
            partial = static_cast<char>(partial & ((1 << (end % 8)) - 1));
        }
        deflated.append(kEmptyStoredLength, sizeof kEmptyStoredLength);
        return true;
    }
};

PieceDeflater::PieceDeflater(int level) : state_(std::make_unique<State>()) {
    state_->compressor = libdeflate_alloc_compressor(level);
}

PieceDeflater::~PieceDeflater() = default;

bool PieceDeflater::Deflate(std::string_view input, bool last, std::string& out) {
    if (state_->compressor == nullptr) return false;
    // Into a buffer kept between pieces: growing `out` to the bound would
    // clear the bound's bytes on every piece.
    std::vector<char>& compressed = state_->compressed;
    const std::size_t bound = libdeflate_deflate_compress_bound(state_->compressor, input.size()) + 8;
    if (compressed.size() < bound) compressed.resize(bound);
    const std::size_t written =
        libdeflate_deflate_compress(state_->compressor, input.data(), input.size(), compressed.data(), compressed.size());
    if (written == 0) return false;  // cannot happen with the bound's room
    const std::size_t start = out.size();
    out.append(compressed.data(), written);
    return last || state_->LeaveOpen(out, start);
}

std::uint32_t Crc32(std::uint32_t crc, std::string_view data) {
    // libdeflate's CRC-32 folds with carry-less multiplication where the
    // processor has it: several times as fast as zlib's.
    return libdeflate_crc32(crc, data.data(), data.size());
}

std::uint32_t Crc32Combine(std::uint32_t crcA, std::uint32_t crcB, std::size_t lengthB) {
    return static_cast<std::uint32_t>(crc32_combine(crcA, crcB, static_cast<z_off_t>(lengthB)));
}

}  // namespace zep::collect

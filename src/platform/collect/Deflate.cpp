#include "platform/collect/Deflate.h"

#include <zlib.h>

#include <algorithm>
#include <climits>

namespace zep::collect {
namespace {

// zlib counts in uInt; the pieces are far smaller, but a caller's data is not.
constexpr std::size_t kMaxStep = UINT_MAX / 2;

}  // namespace

struct PieceDeflater::Stream {
    z_stream z{};
    bool ready = false;
};

PieceDeflater::PieceDeflater(int level) : stream_(std::make_unique<Stream>()) {
    // Raw deflate (negative window bits): the zip entry has no zlib header.
    stream_->ready = deflateInit2(&stream_->z, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) == Z_OK;
}

PieceDeflater::~PieceDeflater() {
    if (stream_->ready) deflateEnd(&stream_->z);
}

bool PieceDeflater::Deflate(std::string_view dictionary, std::string_view input, bool last, std::string& out) {
    z_stream& z = stream_->z;
    if (!stream_->ready || deflateReset(&z) != Z_OK) return false;
    if (!dictionary.empty()) {
        const std::string_view window = dictionary.substr(dictionary.size() - std::min(dictionary.size(), kDeflateWindow));
        if (deflateSetDictionary(&z, reinterpret_cast<const Bytef*>(window.data()), static_cast<uInt>(window.size())) !=
            Z_OK) {
            return false;
        }
    }
    const std::size_t start = out.size();
    // deflateBound is for Z_FINISH; a sync flush adds its empty stored block.
    std::size_t room = deflateBound(&z, static_cast<uLong>(std::min(input.size(), kMaxStep))) + 16;
    std::size_t written = 0;
    std::size_t consumed = 0;
    const int flush = last ? Z_FINISH : Z_SYNC_FLUSH;
    for (;;) {
        out.resize(start + written + room);
        const std::size_t step = std::min(input.size() - consumed, kMaxStep);
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data() + consumed));
        z.avail_in = static_cast<uInt>(step);
        z.next_out = reinterpret_cast<Bytef*>(out.data() + start + written);
        z.avail_out = static_cast<uInt>(std::min(room, kMaxStep));
        const bool final = consumed + step == input.size();
        const int result = deflate(&z, final ? flush : Z_NO_FLUSH);
        consumed += step - z.avail_in;
        written = static_cast<std::size_t>(reinterpret_cast<char*>(z.next_out) - (out.data() + start));
        if (result == Z_STREAM_ERROR) {
            out.resize(start);
            return false;
        }
        // Done when all input went in and the flush left room to spare
        // (a full output buffer may hold back the end of the flush).
        if (final && z.avail_in == 0 && (result == Z_STREAM_END || (!last && z.avail_out > 0))) break;
        room = std::max<std::size_t>(room, 64 * 1024);
    }
    out.resize(start + written);
    return true;
}

std::uint32_t Crc32(std::uint32_t crc, std::string_view data) {
    uLong value = crc;
    while (!data.empty()) {
        const std::size_t step = std::min(data.size(), kMaxStep);
        value = crc32(value, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(step));
        data.remove_prefix(step);
    }
    return static_cast<std::uint32_t>(value);
}

std::uint32_t Crc32Combine(std::uint32_t crcA, std::uint32_t crcB, std::size_t lengthB) {
    return static_cast<std::uint32_t>(crc32_combine(crcA, crcB, static_cast<z_off_t>(lengthB)));
}

}  // namespace zep::collect

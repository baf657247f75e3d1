// Deflate (zlib's raw format, level 6) of an archive entry, whole or in
// pieces that compress on different threads and join into one stream, as
// pigz does: a piece that is not the entry's last ends with a sync flush (so
// it ends on a byte boundary without ending the stream), and the next piece
// is compressed with the 32 KiB before it as its dictionary, so the joined
// stream compresses about as well as one made in one go.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zep::collect {

// What deflate may refer back to: a piece's dictionary is at most this much
// of the input before it.
inline constexpr std::size_t kDeflateWindow = 32 * 1024;

// zlib's own default level: its best trade on log text (level 9 is about
// twice as slow for a few per cent).
inline constexpr int kDeflateLevel = 6;

class PieceDeflater {
public:
    explicit PieceDeflater(int level = kDeflateLevel);
    ~PieceDeflater();
    PieceDeflater(const PieceDeflater&) = delete;
    PieceDeflater& operator=(const PieceDeflater&) = delete;

    // Appends the deflated `input` to `out`. `dictionary`: the input that
    // came before in the same entry (its last kDeflateWindow bytes count);
    // `last`: the piece ends the entry. False when zlib fails (out of memory).
    bool Deflate(std::string_view dictionary, std::string_view input, bool last, std::string& out);

private:
    struct Stream;
    std::unique_ptr<Stream> stream_;
};

// CRC-32 as zip uses it, continued from `crc` (0 to start).
std::uint32_t Crc32(std::uint32_t crc, std::string_view data);
// The CRC-32 of A followed by B from those of A and B and B's length (one
// piece: z_off_t is 32 bits on Windows).
std::uint32_t Crc32Combine(std::uint32_t crcA, std::uint32_t crcB, std::size_t lengthB);

}  // namespace zep::collect

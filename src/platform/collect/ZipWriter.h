// A zip archive written front to back in one pass: every entry is deflated
// before it is written (or streamed with its sizes after its data), so
// nothing is ever written twice and the archive's SHA-256 is known the moment
// its last byte is. Names are UTF-8 with the UTF-8 flag (raw bytes without
// it when a name is not UTF-8); zip64 records appear only where a size, an
// offset or the number of entries needs them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/env/FileSystemEnv.h"
#include "platform/util/Crypto.h"

namespace zep::collect {

// From which value on a field takes its zip64 form; lower in tests only.
struct ZipLimits {
    std::uint64_t field = 0xFFFFFFFFu;  // sizes and offsets
    std::uint64_t entries = 0xFFFFu;
};

class ZipWriter {
public:
    explicit ZipWriter(platform::OutputFile& out, ZipLimits limits = {});

    // A folder entry; `name` ends with '/'.
    bool AddFolder(std::string_view name, std::int64_t modifiedNs);
    // A file entry whose deflated data is all at hand.
    bool AddFile(std::string_view name, std::int64_t modifiedNs, std::uint32_t crc, std::uint64_t size,
                 std::string_view deflated);
    // A file entry streamed in pieces: its CRC and sizes follow its data.
    // `maxSize` bounds the uncompressed size (it decides on zip64 up front).
    bool BeginFile(std::string_view name, std::int64_t modifiedNs, std::uint64_t maxSize);
    bool Append(std::string_view deflated);
    bool EndFile(std::uint32_t crc, std::uint64_t size);
    // The central directory and the end records; everything is written then.
    bool Finish();

    // After Finish: the SHA-256 of every byte written, and their number.
    const std::string& Sha256Hex() const { return sha256_; }
    std::uint64_t Size() const { return offset_; }
    // Why the last write failed.
    const platform::FsStatus& Status() const { return status_; }

private:
    struct Record {
        std::string name;
        std::uint16_t flags = 0;
        std::uint16_t method = 0;
        std::uint32_t dosTime = 0;
        std::int64_t unixTime = -1;  // -1: none (before 1970 or after 2038)
        std::uint32_t crc = 0;
        std::uint64_t compressed = 0;
        std::uint64_t size = 0;
        std::uint64_t offset = 0;
        bool folder = false;
        bool zip64Local = false;  // the local header announced 8-byte sizes
    };

    Record NewRecord(std::string_view name, std::int64_t modifiedNs, std::uint16_t method) const;
    bool WriteLocalHeader(Record& record, bool streamed);
    bool Put(std::string_view bytes);
    bool Flush();

    platform::OutputFile& out_;
    ZipLimits limits_;
    std::vector<Record> records_;
    std::string buffer_;
    crypto::Sha256 hash_;
    std::string sha256_;
    std::uint64_t offset_ = 0;
    std::uint64_t dataStart_ = 0;  // of the entry being streamed
    bool open_ = false;            // an entry is being streamed
    bool failed_ = false;
    platform::FsStatus status_;
};

}  // namespace zep::collect

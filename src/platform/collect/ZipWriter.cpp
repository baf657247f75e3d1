#include "platform/collect/ZipWriter.h"

#include <utf8cpp/utf8.h>

#include <ctime>

namespace zep::collect {
namespace {

constexpr std::uint32_t kLocalHeader = 0x04034b50;
constexpr std::uint32_t kDataDescriptor = 0x08074b50;
constexpr std::uint32_t kCentralHeader = 0x02014b50;
constexpr std::uint32_t kZip64End = 0x06064b50;
constexpr std::uint32_t kZip64Locator = 0x07064b50;
constexpr std::uint32_t kEnd = 0x06054b50;

constexpr std::uint16_t kFlagDescriptor = 1u << 3;
constexpr std::uint16_t kFlagUtf8 = 1u << 11;
constexpr std::uint16_t kStored = 0;
constexpr std::uint16_t kDeflated = 8;
constexpr std::uint16_t kVersion = 20;       // deflate, folders
constexpr std::uint16_t kVersionZip64 = 45;
constexpr std::uint16_t kMadeByUnix = 3u << 8;
constexpr std::uint16_t kZip64Tag = 0x0001;
constexpr std::uint16_t kTimeTag = 0x5455;  // extended timestamp: the exact UTC time
constexpr std::uint32_t kFileAttributes = 0100644u << 16;
constexpr std::uint32_t kFolderAttributes = (040755u << 16) | 0x10;  // 0x10: the DOS folder bit
constexpr std::uint32_t kSaturated = 0xFFFFFFFFu;

constexpr std::size_t kBufferBytes = 1024 * 1024;

void Put16(std::string& out, std::uint32_t value) {
    out += static_cast<char>(value & 0xFF);
    out += static_cast<char>((value >> 8) & 0xFF);
}
void Put32(std::string& out, std::uint32_t value) {
    Put16(out, value & 0xFFFF);
    Put16(out, value >> 16);
}
void Put64(std::string& out, std::uint64_t value) {
    Put32(out, static_cast<std::uint32_t>(value));
    Put32(out, static_cast<std::uint32_t>(value >> 32));
}

// MS-DOS date and time (local time, two-second steps), as zip readers show
// them; 1980-01-01 for anything before.
std::uint32_t DosTime(std::int64_t modifiedNs) {
    const auto seconds = static_cast<std::time_t>(modifiedNs / 1'000'000'000);
    std::tm local{};
#ifdef _WIN32
    const bool ok = localtime_s(&local, &seconds) == 0;
#else
    const bool ok = localtime_r(&seconds, &local) != nullptr;
#endif
    if (!ok || local.tm_year < 80 || local.tm_year > 207) return (1u << 5 | 1u) << 16;
    const auto date = static_cast<std::uint32_t>(((local.tm_year - 80) << 9) | ((local.tm_mon + 1) << 5) | local.tm_mday);
    const auto time = static_cast<std::uint32_t>((local.tm_hour << 11) | (local.tm_min << 5) | (local.tm_sec / 2));
    return date << 16 | time;
}

std::int64_t UnixTime(std::int64_t modifiedNs) {
    const std::int64_t seconds = modifiedNs / 1'000'000'000;
    return seconds >= 0 && seconds <= 0x7FFFFFFF ? seconds : -1;
}

std::uint16_t NameFlags(std::string_view name) {
    return utf8::is_valid(name.begin(), name.end()) ? kFlagUtf8 : 0;
}

void PutTimeExtra(std::string& out, std::int64_t unixTime) {
    if (unixTime < 0) return;
    Put16(out, kTimeTag);
    Put16(out, 5);
    out += '\x01';  // the modification time only
    Put32(out, static_cast<std::uint32_t>(unixTime));
}

}  // namespace

ZipWriter::ZipWriter(platform::OutputFile& out, ZipLimits limits) : out_(out), limits_(limits) {
    buffer_.reserve(kBufferBytes);
}

bool ZipWriter::Put(std::string_view bytes) {
    if (failed_) return false;
    offset_ += bytes.size();
    if (buffer_.size() + bytes.size() <= kBufferBytes) {
        buffer_.append(bytes.data(), bytes.size());
        return true;
    }
    if (!Flush()) return false;
    if (bytes.size() < kBufferBytes) {
        buffer_.append(bytes.data(), bytes.size());
        return true;
    }
    // Large pieces go straight through.
    hash_.Update(bytes);
    if (!out_.Write(bytes, &status_)) failed_ = true;
    return !failed_;
}

bool ZipWriter::Flush() {
    if (failed_) return false;
    if (buffer_.empty()) return true;
    hash_.Update(buffer_);
    if (!out_.Write(buffer_, &status_)) failed_ = true;
    buffer_.clear();
    return !failed_;
}

bool ZipWriter::WriteLocalHeader(Record& record, bool streamed) {
    record.offset = offset_;
    std::string header;
    header.reserve(30 + record.name.size() + 32);
    Put32(header, kLocalHeader);
    Put16(header, record.zip64Local ? kVersionZip64 : kVersion);
    Put16(header, record.flags);
    Put16(header, record.method);
    Put32(header, record.dosTime);
    if (streamed) {
        Put32(header, 0);
        Put32(header, record.zip64Local ? kSaturated : 0);
        Put32(header, record.zip64Local ? kSaturated : 0);
    } else {
        Put32(header, record.crc);
        Put32(header, record.zip64Local ? kSaturated : static_cast<std::uint32_t>(record.compressed));
        Put32(header, record.zip64Local ? kSaturated : static_cast<std::uint32_t>(record.size));
    }
    std::string extra;
    if (record.zip64Local) {
        // Both sizes, as the local header's zip64 field always holds them.
        Put16(extra, kZip64Tag);
        Put16(extra, 16);
        Put64(extra, streamed ? 0 : record.size);
        Put64(extra, streamed ? 0 : record.compressed);
    }
    PutTimeExtra(extra, record.unixTime);
    Put16(header, static_cast<std::uint32_t>(record.name.size()));
    Put16(header, static_cast<std::uint32_t>(extra.size()));
    header += record.name;
    header += extra;
    return Put(header);
}

ZipWriter::Record ZipWriter::NewRecord(std::string_view name, std::int64_t modifiedNs, std::uint16_t method) const {
    Record record;
    record.name = std::string(name);
    record.flags = NameFlags(name);
    record.method = method;
    record.dosTime = DosTime(modifiedNs);
    record.unixTime = UnixTime(modifiedNs);
    return record;
}

bool ZipWriter::AddFolder(std::string_view name, std::int64_t modifiedNs) {
    if (open_) return false;
    Record record = NewRecord(name, modifiedNs, kStored);
    record.folder = true;
    if (!WriteLocalHeader(record, false)) return false;
    records_.push_back(std::move(record));
    return true;
}

bool ZipWriter::AddFile(std::string_view name, std::int64_t modifiedNs, std::uint32_t crc, std::uint64_t size,
                        std::string_view deflated) {
    if (open_) return false;
    Record record = NewRecord(name, modifiedNs, kDeflated);
    record.crc = crc;
    record.size = size;
    record.compressed = deflated.size();
    record.zip64Local = size >= limits_.field || deflated.size() >= limits_.field;
    if (!WriteLocalHeader(record, false) || !Put(deflated)) return false;
    records_.push_back(std::move(record));
    return true;
}

bool ZipWriter::BeginFile(std::string_view name, std::int64_t modifiedNs, std::uint64_t maxSize) {
    if (open_) return false;
    Record record = NewRecord(name, modifiedNs, kDeflated);
    record.flags |= kFlagDescriptor;
    // Deflate's worst case: stored blocks of at most 64 KiB, 5 bytes each,
    // plus a flush per piece; generously bounded.
    const std::uint64_t maxCompressed = maxSize + maxSize / 256 + 4096;
    record.zip64Local = maxSize >= limits_.field || maxCompressed >= limits_.field;
    if (!WriteLocalHeader(record, true)) return false;
    records_.push_back(std::move(record));
    dataStart_ = offset_;
    open_ = true;
    return true;
}

bool ZipWriter::Append(std::string_view deflated) { return open_ && Put(deflated); }

bool ZipWriter::EndFile(std::uint32_t crc, std::uint64_t size) {
    if (!open_) return false;
    open_ = false;
    Record& record = records_.back();
    record.crc = crc;
    record.size = size;
    record.compressed = offset_ - dataStart_;
    if (!record.zip64Local && (size >= limits_.field || record.compressed >= limits_.field)) {
        // More than the bound promised: the header cannot be taken back.
        failed_ = true;
        status_ = platform::FsStatus{platform::FsError::Failed, "an entry outgrew its announced size"};
        return false;
    }
    std::string descriptor;
    Put32(descriptor, kDataDescriptor);
    Put32(descriptor, crc);
    if (record.zip64Local) {
        Put64(descriptor, record.compressed);
        Put64(descriptor, size);
    } else {
        Put32(descriptor, static_cast<std::uint32_t>(record.compressed));
        Put32(descriptor, static_cast<std::uint32_t>(size));
    }
    return Put(descriptor);
}

bool ZipWriter::Finish() {
    if (open_ || failed_) return false;
    const std::uint64_t directoryStart = offset_;
    std::string central;
    for (const Record& record : records_) {
        const bool bigSize = record.size >= limits_.field;
        const bool bigCompressed = record.compressed >= limits_.field;
        const bool bigOffset = record.offset >= limits_.field;
        std::string extra;
        if (bigSize || bigCompressed || bigOffset) {
            std::string fields;
            if (bigSize) Put64(fields, record.size);
            if (bigCompressed) Put64(fields, record.compressed);
            if (bigOffset) Put64(fields, record.offset);
            Put16(extra, kZip64Tag);
            Put16(extra, static_cast<std::uint32_t>(fields.size()));
            extra += fields;
        }
        PutTimeExtra(extra, record.unixTime);
        const bool zip64 = record.zip64Local || bigSize || bigCompressed || bigOffset;
        central.clear();
        Put32(central, kCentralHeader);
        Put16(central, kMadeByUnix | (zip64 ? kVersionZip64 : kVersion));
        Put16(central, zip64 ? kVersionZip64 : kVersion);
        Put16(central, record.flags);
        Put16(central, record.method);
        Put32(central, record.dosTime);
        Put32(central, record.crc);
        Put32(central, bigCompressed ? kSaturated : static_cast<std::uint32_t>(record.compressed));
        Put32(central, bigSize ? kSaturated : static_cast<std::uint32_t>(record.size));
        Put16(central, static_cast<std::uint32_t>(record.name.size()));
        Put16(central, static_cast<std::uint32_t>(extra.size()));
        Put16(central, 0);  // comment
        Put16(central, 0);  // disk
        Put16(central, 0);  // internal attributes
        Put32(central, record.folder ? kFolderAttributes : kFileAttributes);
        Put32(central, bigOffset ? kSaturated : static_cast<std::uint32_t>(record.offset));
        central += record.name;
        central += extra;
        if (!Put(central)) return false;
    }
    const std::uint64_t directorySize = offset_ - directoryStart;
    const std::uint64_t count = records_.size();
    const bool zip64 = count >= limits_.entries || directorySize >= limits_.field || directoryStart >= limits_.field;
    std::string end;
    if (zip64) {
        const std::uint64_t recordStart = offset_;
        Put32(end, kZip64End);
        Put64(end, 44);  // the size of the rest of this record
        Put16(end, kMadeByUnix | kVersionZip64);
        Put16(end, kVersionZip64);
        Put32(end, 0);  // this disk
        Put32(end, 0);  // the directory's disk
        Put64(end, count);
        Put64(end, count);
        Put64(end, directorySize);
        Put64(end, directoryStart);
        Put32(end, kZip64Locator);
        Put32(end, 0);
        Put64(end, recordStart);
        Put32(end, 1);  // disks
    }
    Put32(end, kEnd);
    Put16(end, 0);
    Put16(end, 0);
    const std::uint32_t shortCount = count >= limits_.entries ? 0xFFFFu : static_cast<std::uint32_t>(count);
    Put16(end, shortCount);
    Put16(end, shortCount);
    Put32(end, directorySize >= limits_.field ? kSaturated : static_cast<std::uint32_t>(directorySize));
    Put32(end, directoryStart >= limits_.field ? kSaturated : static_cast<std::uint32_t>(directoryStart));
    Put16(end, 0);  // comment
    if (!Put(end) || !Flush()) return false;
    sha256_ = hash_.FinalHex();
    return !sha256_.empty();
}

}  // namespace zep::collect

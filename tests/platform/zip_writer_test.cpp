// The archive writer against two independent readers (libzip, unzip -t),
// with the zip64 forms forced by low limits so that they need no gigabytes.
#include "platform/collect/ZipWriter.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/collect/Deflate.h"
#include "platform/util/Crypto.h"
#include "support/HookedFiles.h"
#include "support/TestPlatform.h"
#include "support/ZipReader.h"
#ifndef _WIN32
#include "support/posix/ChildProcess.h"
#endif

namespace zep::collect {
namespace {

namespace fs = std::filesystem;
using zep::testing::MemoryOutput;

struct Item {
    std::string name;
    std::string content;
    std::size_t pieces = 1;  // more than one: streamed, its pieces deflated apart and joined
};

std::string Text(std::size_t size, unsigned seed) {
    std::string text;
    while (text.size() < size) text += "2024-05-01T12:00:00.000Z [d] [" + std::to_string(seed++ % 977) + "] line\n";
    text.resize(size);
    return text;
}

std::string Random(std::size_t size) {
    std::string bytes(size, '\0');
    std::mt19937 random(7);
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

// Deflates `content` as the packer does: in pieces joined into one stream.
void AddStreamed(ZipWriter& writer, const Item& item) {
    ASSERT_TRUE(writer.BeginFile(item.name, 1'700'000'000'000'000'000, item.content.size()));
    PieceDeflater deflater;
    const std::size_t step = item.content.size() / item.pieces + 1;
    std::uint32_t crc = 0;
    for (std::size_t start = 0; start < item.content.size(); start += step) {
        const std::string_view piece = std::string_view(item.content).substr(start, step);
        std::string deflated;
        ASSERT_TRUE(deflater.Deflate(piece, start + step >= item.content.size(), deflated));
        crc = Crc32Combine(crc, Crc32(0, piece), piece.size());
        ASSERT_TRUE(writer.Append(deflated));
    }
    ASSERT_TRUE(writer.EndFile(crc, item.content.size()));
}

std::string Archive(const std::vector<Item>& items, ZipLimits limits) {
    MemoryOutput out;
    ZipWriter writer(out, limits);
    for (const Item& item : items) {
        if (item.name.back() == '/') {
            EXPECT_TRUE(writer.AddFolder(item.name, 0));
        } else if (item.pieces > 1) {
            AddStreamed(writer, item);
        } else {
            PieceDeflater deflater;
            std::string deflated;
            EXPECT_TRUE(deflater.Deflate(item.content, true, deflated));
            EXPECT_TRUE(writer.AddFile(item.name, 1'700'000'000'000'000'000, Crc32(0, item.content),
                                       item.content.size(), deflated));
        }
    }
    EXPECT_TRUE(writer.Finish());
    EXPECT_EQ(writer.Size(), out.bytes.size());
    EXPECT_EQ(writer.Sha256Hex(), crypto::Sha256Hex(out.bytes)) << "the hash is of the bytes written";
    return out.bytes;
}

TEST(ZipWriterTest, TwoReadersReadEveryEntryOfAZip64ArchiveAsWritten) {
    const std::vector<Item> items = {
        {"ZEP/", ""},
        {"ZEP/Log/", ""},
        {"ZEP/Log/empty.log", ""},
        {"ZEP/Log/agent.log", Text(100'000, 1)},
        {"ZEP/Log/rotated.log", Text(700'000, 2), 5},
        {"ZEP/context/random.dat", Random(300'000), 3},  // stored blocks, joined all the same
        {"ZEP/données/журнал 日志.log", Text(3'000, 3)},
        {"scan-result.json", "{\"components\":[]}"},
    };
    zep::testing::TestPlatform platform;
    fs::create_directories(platform.rootPath);

    // Low limits put every size, offset and count in its zip64 form (the plain
    // form is what the log collection's tests read back).
    const fs::path zip = platform.rootPath / "zip64.zip";
    zep::testing::WriteText(zip, Archive(items, ZipLimits{0, 0}));
    std::set<std::string> names;
    for (const Item& item : items) {
        names.insert(item.name);
        if (item.name.back() != '/') {
            EXPECT_EQ(zep::testing::ZipRead(zip, item.name), item.content) << item.name;
        }
    }
    EXPECT_EQ(zep::testing::ZipEntries(zip), names);
#ifndef _WIN32
    // The host's reader too (under Wine there is none to start).
    const fs::path output = platform.rootPath / "reader.out";
    EXPECT_EQ(zep::testing::RunToEnd({"unzip", "-tq", zip.string()}, output), 0) << zep::testing::ReadText(output);
#endif
}

TEST(ZipWriterTest, AStreamedEntryThatOutgrowsItsBoundFailsInsteadOfLying) {
    MemoryOutput out;
    ZipWriter writer(out);
    ASSERT_TRUE(writer.BeginFile("grew.log", 0, 10));
    EXPECT_TRUE(writer.Append(std::string(100, 'x')));
    EXPECT_FALSE(writer.EndFile(0, 0x1'0000'0000ull)) << "a size the header did not announce in zip64 form";
    EXPECT_FALSE(writer.Finish());

    zep::testing::LimitedOutput full(std::make_unique<MemoryOutput>(), 40);
    ZipWriter small(full);
    EXPECT_TRUE(small.AddFolder("a/", 0)) << "buffered";
    EXPECT_FALSE(small.Finish()) << "a full disk fails the archive";
    EXPECT_FALSE(small.Status().ok());
}

}  // namespace
}  // namespace zep::collect

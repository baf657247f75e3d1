#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "support/TestPlatform.h"

namespace zep {
namespace {

TEST(Utf8Test, InvalidInputDecodesToReplacementCharactersWithoutThrowing) {
    for (const char* bytes : {"\xFF", "\x80", "\xE6\x97", "\xF0\x9F\x98", "\xC0\xAF", "\xED\xA0\x80",
                              "\xF4\x90\x80\x80"}) {
        SCOPED_TRACE(::testing::PrintToString(std::string(bytes)));
        for (const bool atEnd : {false, true}) {
            std::wstring wide;
            ASSERT_NO_THROW(wide = text::FromUtf8("x" + std::string(bytes) + (atEnd ? "" : "y")));
            ASSERT_GE(wide.size(), atEnd ? 2u : 3u);
            EXPECT_EQ(wide.front(), L'x');
            EXPECT_EQ(atEnd ? L'y' : wide.back(), L'y');
            for (std::size_t i = 1; i + (atEnd ? 0u : 1u) < wide.size(); ++i) {
                EXPECT_EQ(static_cast<unsigned>(wide[i]), 0xFFFDu) << "at " << i;
            }
            EXPECT_EQ(text::FromUtf8(text::ToUtf8(wide)), wide) << "what came out encodes cleanly again";
        }
    }
    // A lone surrogate in wide text cannot be encoded either.
    EXPECT_EQ(text::ToUtf8(std::wstring{L'a', static_cast<wchar_t>(0xDC00), L'b'}), "a\xEF\xBF\xBD" "b");
}

TEST(FileNameTest, AnyBytesRoundTripThroughWideText) {
    std::string everyByte;
    for (unsigned b = 1; b <= 0xFF; ++b) everyByte.push_back(static_cast<char>(b));
    for (const std::string& bytes : {std::string("caf\xE9.txt"), std::string("a\xC3\xBC\xFF" "b\xF0\x9F\x98\x80\x80"),
                                     std::string("\xE6\x97" "x\xE6\x97\xA5"), std::string("\xC0\xAF\xED\xA0\x80"),
                                     everyByte}) {
        EXPECT_EQ(text::EncodeFileName(text::DecodeFileName(bytes)), bytes);
    }
    // A stray byte is carried as a lone surrogate, not as the replacement character.
    EXPECT_EQ(text::DecodeFileName("\xE9"), std::wstring(1, static_cast<wchar_t>(0xDCE9)));
    EXPECT_EQ(text::DecodeFileName("Z\xC3\xBCrich-\xF0\x9F\x98\x80"), L"Z\u00FCrich-\U0001F600");
}

TEST(PathTest, NativePathUsesForwardSlashes) {
    EXPECT_EQ(path::NativePath(L"\\diagnostics\\latest\\"), L"/diagnostics/latest/");
    EXPECT_EQ(path::NativePath(L"already/native"), L"already/native");
}

TEST(PathTest, AFileWithANonUtf8NameIsFoundThroughItsWidePath) {
    testing::TestPlatform platform;
    const std::filesystem::path file = platform.rootPath / std::string("caf\xE9-\xFF.txt");
    testing::WriteText(file, "x");
    const std::wstring wide = path::FromFs(file);
    EXPECT_EQ(path::ToFs(wide).native(), file.native());
    EXPECT_EQ(FileSystem::fileSize(wide), 1u);
    // A lossy conversion would name a different file.
    EXPECT_FALSE(FileSystem::fileExists(text::FromUtf8(file.native())));
    std::vector<std::wstring> listed;
    FileSystem::GetFileListForFolder(platform.root, L".txt", listed);
    EXPECT_THAT(listed, ::testing::Contains(wide));
}

}  // namespace
}  // namespace zep

#include <random>
#include <string>

#include <gtest/gtest.h>

#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"
#include "support/TestPlatform.h"

namespace {

TEST(FileHashTest, KnownDigestUnderEverySpellingOfTheNameAndEmptyForAnythingElse) {
    zep::testing::TestPlatform platform;
    zep::testing::WriteText(platform.rootPath / "abc.txt", "abc");
    const std::wstring abc = zep::path::FromFs(platform.rootPath / "abc.txt");
    for (const wchar_t* name : {L"SHA-256", L"SHA256", L"sha-256", L"Sha256"}) {
        EXPECT_EQ(utility::GetFileHash(abc, name), L"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad")
            << name;
    }
    for (const wchar_t* name : {L"", L"SHA-1", L"MD5", L"SHA-2566"}) EXPECT_EQ(utility::GetFileHash(abc, name), L"");
    EXPECT_EQ(utility::GetFileHash(zep::path::FromFs(platform.rootPath / "missing.zip"), L"SHA-256"), L"");
    EXPECT_EQ(utility::GetFileHash(platform.root, L"SHA-256"), L"") << "a folder";
}

TEST(FileHashTest, LargeFileSpanningManyChunksHasTheDigestOfItsBytes) {
    zep::testing::TestPlatform platform;
    // 3 MiB and a few bytes, so that the last chunk is a short one.
    std::string bytes(3 * 1024 * 1024 + 13, '\0');
    std::mt19937 random(42);
    for (char& c : bytes) c = static_cast<char>(random());
    zep::testing::WriteText(platform.rootPath / "big.zip", bytes);
    // Made with sha256sum from the same bytes (std::mt19937 is the same everywhere).
    EXPECT_EQ(utility::GetFileHash(zep::path::FromFs(platform.rootPath / "big.zip"), L"SHA-256"),
              L"db8455125c23305fc5a52444afcf3ad746b9349d1cad6049fcec074d465ddba3");
}

}  // namespace

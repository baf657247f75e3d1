#include "platform/agent/CommonBase.h"

#include <random>
#include <string>

#include <gtest/gtest.h>

#include "platform/util/Paths.h"
#include "support/TestPlatform.h"

namespace {

TEST(FileHashTest, DigestOfTheBytesUnderEverySpellingOfTheNameAndEmptyForAnythingElse) {
    zep::testing::TestPlatform platform;
    const auto hash = [&](const char* file, const wchar_t* name) {
        return utility::GetFileHash(zep::path::FromFs(platform.rootPath / file), name);
    };
    zep::testing::WriteText(platform.rootPath / "abc.txt", "abc");
    for (const wchar_t* name : {L"SHA-256", L"sha256"}) {
        EXPECT_EQ(hash("abc.txt", name), L"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad") << name;
    }
    for (const wchar_t* name : {L"", L"MD5", L"SHA-2566"}) EXPECT_EQ(hash("abc.txt", name), L"");
    EXPECT_EQ(hash("missing.zip", L"SHA-256"), L"");
    EXPECT_EQ(utility::GetFileHash(platform.root, L"SHA-256"), L"") << "a folder";

    // Many chunks and a short last one; the digest is sha256sum's (std::mt19937 is the same everywhere).
    std::string bytes(3 * 1024 * 1024 + 13, '\0');
    std::mt19937 random(42);
    for (char& c : bytes) c = static_cast<char>(random());
    zep::testing::WriteText(platform.rootPath / "big.zip", bytes);
    EXPECT_EQ(hash("big.zip", L"SHA-256"), L"db8455125c23305fc5a52444afcf3ad746b9349d1cad6049fcec074d465ddba3");
}

}  // namespace

#include <random>
#include <string>

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include "platform/agent/CommonBase.h"
#include "support/TestPlatform.h"

namespace {

TEST(FileHashTest, KnownDigestUnderEverySpellingOfTheNameAndEmptyForAnythingElse) {
    zep::testing::TestPlatform platform;
    zep::testing::WriteText(platform.rootPath / "abc.txt", "abc");
    const std::wstring abc = platform.root + L"/abc.txt";
    for (const wchar_t* name : {L"SHA-256", L"SHA256", L"sha-256", L"Sha256"}) {
        EXPECT_EQ(utility::GetFileHash(abc, name), L"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad")
            << name;
    }
    for (const wchar_t* name : {L"", L"SHA-1", L"MD5", L"SHA-2566"}) EXPECT_EQ(utility::GetFileHash(abc, name), L"");
    EXPECT_EQ(utility::GetFileHash(platform.root + L"/missing.zip", L"SHA-256"), L"");
    EXPECT_EQ(utility::GetFileHash(platform.root, L"SHA-256"), L"") << "a folder";
}

TEST(FileHashTest, LargeFileSpanningManyChunksMatchesAOneShotDigest) {
    zep::testing::TestPlatform platform;
    // 3 MiB and a few bytes, so that the last chunk is a short one.
    std::string bytes(3 * 1024 * 1024 + 13, '\0');
    std::mt19937 random(42);
    for (char& c : bytes) c = static_cast<char>(random());
    zep::testing::WriteText(platform.rootPath / "big.zip", bytes);
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
    std::wstring expected;
    for (unsigned char b : digest) expected += {L"0123456789abcdef"[b >> 4], L"0123456789abcdef"[b & 0x0F]};
    EXPECT_EQ(utility::GetFileHash(platform.root + L"/big.zip", L"SHA-256"), expected);
}

}  // namespace

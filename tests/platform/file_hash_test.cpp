#include <unistd.h>

#include <filesystem>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include "platform/CommonBase.h"
#include "platform/Paths.h"
#include "support/TestPlatform.h"

namespace {

using zep::path::FromFs;

class FileHashTest : public ::testing::Test {
protected:
    std::wstring Write(const std::string& name, const std::string& bytes) {
        const auto file = platform.rootPath / name;
        zep::testing::WriteText(file, bytes);
        return FromFs(file);
    }
    zep::testing::TestPlatform platform;
};

TEST_F(FileHashTest, KnownDigestsInLowerCaseHexUnderEverySpellingOfTheName) {
    const std::wstring abc = Write("abc.txt", "abc");
    for (const wchar_t* name : {L"SHA-256", L"SHA256", L"sha-256", L"Sha256"}) {
        EXPECT_EQ(utility::GetFileHash(abc, name), L"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad")
            << name;
    }
    EXPECT_EQ(utility::GetFileHash(Write("empty", ""), L"SHA-256"),
              L"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_F(FileHashTest, LargeFileSpanningManyChunksMatchesAOneShotDigest) {
    // 3 MiB and a few bytes, so that the last chunk is a short one.
    std::string bytes(3 * 1024 * 1024 + 13, '\0');
    std::mt19937 random(42);
    for (char& c : bytes) c = static_cast<char>(random());
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
    std::wstring expected;
    for (unsigned char b : digest) {
        expected += L"0123456789abcdef"[b >> 4];
        expected += L"0123456789abcdef"[b & 0x0F];
    }
    EXPECT_EQ(utility::GetFileHash(Write("big.zip", bytes), L"SHA-256"), expected);
}

TEST_F(FileHashTest, NameThatIsNotUtf8IsFound) {
    const auto file = platform.rootPath / std::string("caf\xe9.zip");
    zep::testing::WriteText(file, "abc");
    EXPECT_EQ(utility::GetFileHash(FromFs(file), L"SHA256").size(), 64u);
}

TEST_F(FileHashTest, UnknownAlgorithmOrUnreadableFileGivesEmpty) {
    const std::wstring abc = Write("abc.txt", "abc");
    for (const wchar_t* name : {L"", L"SHA-1", L"MD5", L"SHA-2566", L"SHA 256"}) {
        EXPECT_EQ(utility::GetFileHash(abc, name), L"") << name;
    }
    EXPECT_EQ(utility::GetFileHash(platform.root + L"/missing.zip", L"SHA-256"), L"");
    EXPECT_EQ(utility::GetFileHash(platform.root, L"SHA-256"), L"") << "a folder";
    if (::geteuid() != 0) {  // root reads everything
        std::filesystem::permissions(platform.rootPath / "abc.txt", std::filesystem::perms::none);
        EXPECT_EQ(utility::GetFileHash(abc, L"SHA-256"), L"");
    }
}

}  // namespace

// The names made from outside text: the zip-name sanitiser, the zip name made
// from a logical device id and a scan name (the two texts separated by a NUL
// byte), and the file-name rules a request id must pass to name a scan.
#include "FuzzSupport.h"
#include "artifacts/ZipNames.h"
#include "manager/ScanName.h"
#include "platform/util/Strings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zep::artifacts;
    const auto parts = zep::fuzz::Parts(zep::fuzz::Bytes(data, size), 2);
    const std::wstring logical = zep::text::DecodeFileName(parts[0]);
    const std::wstring scan = zep::text::DecodeFileName(parts[1]);

    const std::wstring sanitised = SanitizeZipFileName(logical);
    ZEP_FUZZ_CHECK(sanitised.find_first_of(L"\\/:*?\"<>|") == std::wstring::npos);
    ZEP_FUZZ_CHECK(sanitised.empty() || (sanitised.back() != L'.' && sanitised.back() != L' '));

    const std::wstring name = ZipFolderName(logical, scan);
    ZEP_FUZZ_CHECK(!name.empty() && name != L"." && name != L"..");
    ZEP_FUZZ_CHECK(name.find_first_of(L"\\/") == std::wstring::npos);
    ZEP_FUZZ_CHECK(zep::text::ToUtf8(name).size() <= 200);
    ZEP_FUZZ_CHECK(SanitizeZipFileName(name + L".zip") == name + L".zip");

    using zep::manager::NameRules;
    if (zep::manager::IsOneFileName(scan, NameRules::Posix)) {
        ZEP_FUZZ_CHECK(scan != L"." && scan != L".." && scan.find(L'/') == std::wstring::npos);
        ZEP_FUZZ_CHECK(zep::text::ToUtf8(scan).size() <= 255);
    }
    if (zep::manager::IsOneFileName(scan, NameRules::Windows)) {
        ZEP_FUZZ_CHECK(SanitizeZipFileName(scan) == scan || scan.front() == L' ' || scan.front() == L'\t');
    }
    return 0;
}

// A device folder's policies: update-policy.json and platform-policy.json.
// A policy text never lists more than it holds, and reads the same twice.
#include "FuzzSupport.h"
#include "platform/device/FolderPolicy.h"
#include "platform/device/PlatformPolicyFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = zep::fuzz::Bytes(data, size);
    const zep::platform::UpdatePolicy policy = zep::platform::ParseUpdatePolicy(text);
    const zep::platform::UpdatePolicy again = zep::platform::ParseUpdatePolicy(text);
    ZEP_FUZZ_CHECK(again.packages.size() == policy.packages.size());
    ZEP_FUZZ_CHECK(policy.packages.size() <= size / 8 + 1);  // {"id":""} is the smallest entry
    const PlatformPolicy platform = zep::platform::ParsePlatformPolicy(text);
    ZEP_FUZZ_CHECK(platform.jws_pubkey().size() <= size);
    return 0;
}

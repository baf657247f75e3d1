// A plug-in folder's plugin.json: the id, the program and the running
// instances to ask.
#include <algorithm>

#include "FuzzSupport.h"
#include "platform/device/FolderExtensions.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::filesystem::path folder = "/device/plugins/demo";
    const auto manifest = zep::platform::ParsePluginManifest(zep::fuzz::Bytes(data, size), folder);
    if (!manifest) return 0;
    ZEP_FUZZ_CHECK(!manifest->id.empty());
    ZEP_FUZZ_CHECK(manifest->program.is_absolute());
    auto elevations = manifest->elevations;
    std::sort(elevations.begin(), elevations.end());
    ZEP_FUZZ_CHECK(std::adjacent_find(elevations.begin(), elevations.end()) == elevations.end());
    return 0;
}

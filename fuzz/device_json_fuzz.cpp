// A device folder's device.json: any text gives a device (the defaults when it
// is not one), and the same text gives the same device twice.
#include "FuzzSupport.h"
#include "platform/device/DeviceState.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = zep::fuzz::Bytes(data, size);
    const zep::platform::DeviceState first = zep::platform::ParseDeviceJson(text);
    const zep::platform::DeviceState second = zep::platform::ParseDeviceJson(text);
    ZEP_FUZZ_CHECK(first.deviceId == second.deviceId && first.registered == second.registered &&
                   first.freeDiskBytes == second.freeDiskBytes);
    ZEP_FUZZ_CHECK(first.maxJitterSeconds == second.maxJitterSeconds);
    return 0;
}

// A message from the broker to zepdiag serve: whatever it holds becomes a
// notification or a reason, never anything else.
#include "FuzzSupport.h"
#include "serve/Envelope.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string error;
    const auto notification = zepdiag::serve::ParseEnvelope(zep::fuzz::Bytes(data, size), error);
    ZEP_FUZZ_CHECK(notification.has_value() == error.empty());
    return 0;
}

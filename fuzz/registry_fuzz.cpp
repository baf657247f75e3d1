// A device's registry.reg, in the registry editor's format: UTF-8, or
// UTF-16LE behind its byte-order mark (the first byte picks: odd takes the
// rest as UTF-16LE code units). Whatever is loaded exports as text that loads
// back to the same registry.
#include "FuzzSupport.h"
#include "platform/util/MemoryRegistry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zep::platform;
    if (size == 0) return 0;
    std::string bytes(zep::fuzz::Bytes(data + 1, size - 1));
    if ((data[0] & 1) != 0) bytes.insert(0, "\xFF\xFE");

    MemoryRegistry registry;
    int skipped = 0;
    LoadRegText(registry, DecodeRegFile(bytes), &skipped);

    for (const Hive hive : {Hive::LocalMachine, Hive::Users}) {
        const std::wstring exported = RenderRegText(hive, registry.Snapshot(hive, L""));
        MemoryRegistry reread;
        int skippedAgain = 0;
        LoadRegText(reread, DecodeRegFile(EncodeUtf16LeWithBom(exported)), &skippedAgain);
        ZEP_FUZZ_CHECK(skippedAgain == 0);
        ZEP_FUZZ_CHECK(RenderRegText(hive, reread.Snapshot(hive, L"")) == exported);
    }
    return 0;
}

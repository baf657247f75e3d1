// What a plug-in leaves behind for the agent: its component-result.json,
// completed and summed up into the plug-in's scan result; the delete
// preference in latest/; and its answer on standard output. The input is the
// three texts separated by NUL bytes; the documents go through files, as in
// a scan.
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "FuzzSupport.h"
#include "platform/util/JsonText.h"
#include "platform/util/Paths.h"
#include "platform/device/FolderExtensions.h"
#include "support/PluginProcessorPeer.h"

namespace {

namespace fs = std::filesystem;

void Write(const fs::path& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static DiagnosticsManager* const manager = new DiagnosticsManager();
    // On tmpfs: the documents are replaced atomically, with a flush each time.
    static const fs::path folder = [] {
        const fs::path base = fs::exists("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
        const fs::path made = base / ("zep-fuzz-plugin-" + std::to_string(::getpid())) / "diagnostics";
        fs::create_directories(made / "latest");
        return made;
    }();
    static const std::wstring diagFolder = zep::path::FromFs(folder);
    using Peer = PluginDiagnosticsProcessorTestPeer;

    const auto parts = zep::fuzz::Parts(zep::fuzz::Bytes(data, size), 3);
    const bool user = size > 0 && (data[0] & 1) != 0;
    const auto elevation = user ? zep::platform::User : zep::platform::Elevated;

    Write(folder / "component-result.json", parts[0]);
    Json::Value component;
    if (zep::json::Parse(parts[0], component)) static_cast<void>(Peer::CountFailedTests(component));
    Peer::EnsurePluginComponentResultJson(*manager, diagFolder, L"com.q.fuzz", elevation);
    Peer::GeneratePluginScanResultJson(*manager, diagFolder, L"com.q.fuzz");
    Write(folder / "component-result.json", parts[0]);
    Peer::UpdatePluginComponentResultType(*manager, diagFolder, "NetworkNotConnected");

    // Whatever the plug-in wrote, the completed document is an object with the agent's keys.
    std::ifstream in(folder / "component-result.json", std::ios::binary);
    const std::string completed((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::optional<Json::Value> document = zep::json::ParseObject(completed);
    ZEP_FUZZ_CHECK(document && (*document)["resultType"] == "NetworkNotConnected");

    Write(folder / "latest" / "plugin-upload-meta.json", parts[1]);
    bool deleteFiles = true;
    static_cast<void>(Peer::ReadPluginDeletePreference(diagFolder, deleteFiles));

    static_cast<void>(zep::platform::PluginAnswerDeletesFiles(parts[2], user));
    return 0;
}

// The collection of the agent's context done natively, in portable code over
// the platform's files: the same archive as the Windows command lines make,
// packed in one pass.
//
// CopyLogs only plans the copy (StagingPlan.h): it selects the newest logs
// within the budget, and RemoveArchives, LimitLogSize and ScrubLogs act on
// that plan as they would on copied files. CompressFolder then packs the
// staging folder's files and the planned ones, each read once. Links are
// never followed and special files never opened; a file that vanishes or
// cannot be read is logged and left out.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/collect/Packer.h"
#include "platform/env/CollectionEnv.h"

namespace zep::collect {

// How the platform runs a package's diagnostics script.
struct PackageScriptWay {
    std::wstring scriptName;  // the script's file name in the package's temp folder
    // Runs `script` with the command "get-diagnostics" and the output folder;
    // non-zero when it ran to a good end.
    std::function<int(const std::wstring& script, const std::wstring& outputFolder)> run;
};

class NativeCollection : public platform::CollectionEnv {
public:
    explicit NativeCollection(PackageScriptWay scripts, PackOptions options = {});
    ~NativeCollection() override;

    int CopyLogs(const std::wstring& source, const std::wstring& destination, std::uint64_t keepBytes) override;
    int RemoveArchives(const std::wstring& folder) override;
    int LimitLogSize(const std::wstring& folder, std::uint64_t limitBytes) override;
    int ScrubLogs(const std::wstring& folder) override;
    int ExportRegistry(const std::wstring& key, const std::wstring& outputFile) override;
    int CompressFolder(const std::wstring& sourceDir, const std::wstring& zipPath) override;
    int CompressPluginFolder(const std::wstring& diagFolder, const std::wstring& zipPath) override;
    std::wstring PackageScriptName() override;
    int RunPackageScript(const std::wstring& script, const std::wstring& outputFolder) override;

private:
    struct State;
    std::unique_ptr<State> state_;
    PackageScriptWay scripts_;
    PackOptions options_;
};

}  // namespace zep::collect

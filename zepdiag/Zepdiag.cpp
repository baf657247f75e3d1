#include "Zepdiag.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Cli.h"
#include "DemoDevice.h"
#include "DiagnosticScanner/DiagnosticsManager.h"
#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "JsonSummary.h"
#include "Module.h"
#include "Summary.h"
#include "platform/agent/ZEPNotificationData.h"
#include "platform/device/DeviceFolder.h"
#include "platform/env/Env.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "plugins/PluginFolders.h"
#ifndef _WIN32
#include "serve/Service.h"
#endif

namespace {

namespace fs = std::filesystem;
using namespace zepdiag;

constexpr int kFailure = 1;
constexpr int kUnusable = 2;  // usage errors and folders that are no device
constexpr int kBusy = 3;      // --no-wait and another run holds the device folder

// The hub's topics and states that the module listens to.
constexpr int kTopicGetDiagnostics = 3;
constexpr int kStateNone = 0;

// A path as zepdiag prints it (UTF-8 on Windows).
std::string Shown(const fs::path& path) { return zep::path::NarrowPath(path); }

// Absolute and without a trailing separator, so that what is printed is the
// path the module itself logs.
fs::path DeviceFolderPath(const std::string& argument) {
    std::error_code code;
    fs::path dir = fs::absolute(zep::path::FromNarrow(argument), code);
    if (code) dir = zep::path::FromNarrow(argument);
    dir = dir.lexically_normal();
    if (!dir.has_filename() && dir != dir.root_path()) dir = dir.parent_path();
    return dir;
}

bool CreateDemo(const fs::path& dir, std::ostream& out, std::ostream& err) {
    std::string error;
    if (!CreateDemoDevice(dir, std::chrono::system_clock::now(), error)) {
        err << "zepdiag: cannot create the demo device in " << Shown(dir) << ": " << error << '\n';
        return false;
    }
    out << "Created a demo device in " << Shown(dir) << '\n';
    return true;
}

// Where the module reads the system's registry (Windows), the device's
// registry.reg is imported into it.
bool ImportRegistry(const fs::path& dir, std::ostream& out, std::ostream& err) {
    if (zep::platform::DeviceFolderOptions{}.registryFromFile) return true;
    std::string problem;
    if (!zep::platform::ImportRegistryFile(zep::platform::DefaultEnv(), zep::path::FromFs(dir), problem)) {
        err << "zepdiag: registry.reg was not imported into the registry: " << problem << '\n';
        return false;
    }
    out << "Imported registry.reg into the registry\n";
    return true;
}

int RunInit(const fs::path& dir, std::ostream& out, std::ostream& err) {
    switch (InspectDeviceFolder(dir)) {
        case FolderKind::Device:
            // Running init twice is harmless: the device and whatever was
            // changed in it stay as they are (its registry is imported again).
            out << Shown(dir) << " is a device folder already; nothing was changed.\n";
            return ImportRegistry(dir, out, err) ? 0 : kFailure;
        case FolderKind::Other:
            err << "zepdiag: " << Shown(dir)
                << " is not empty and is not a device folder; choose a new or empty folder\n";
            return kUnusable;
        case FolderKind::NotADirectory:
            err << "zepdiag: " << Shown(dir) << " exists and is not a folder\n";
            return kUnusable;
        case FolderKind::Missing:
        case FolderKind::Empty: break;
    }
    if (!CreateDemo(dir, out, err)) return kUnusable;
    return ImportRegistry(dir, out, err) ? 0 : kFailure;
}

void ReportNotADevice(const fs::path& dir, std::ostream& err) {
    err << "zepdiag: " << Shown(dir)
        << " is not a device folder (it has neither device.json nor programdata/); "
           "create one with 'zepdiag init --device <new folder>'\n";
}

// A device folder ready for the module: a missing or empty one becomes a demo
// device first. False (with the reason on `err`) when it cannot be used.
bool PrepareDeviceFolder(const fs::path& dir, std::ostream& out, std::ostream& err) {
    switch (InspectDeviceFolder(dir)) {
        case FolderKind::Device: return true;
        case FolderKind::Missing:
        case FolderKind::Empty: return CreateDemo(dir, out, err) && ImportRegistry(dir, out, err);
        case FolderKind::Other:
            ReportNotADevice(dir, err);
            return false;
        case FolderKind::NotADirectory:
            err << "zepdiag: " << Shown(dir) << " exists and is not a folder\n";
            return false;
    }
    return false;
}

// The scan's summary and what it did beside, as one JSON document.
Json::Value ScanDocument(const Session& session, const std::string& trigger,
                         const std::optional<fs::path>& result, const RunActivity& done) {
    Json::Value document = ScanJson(session.dir, trigger, result);
    MergeInto(document, ActivityJson(done));
    return document;
}

int RunScan(const Session& session, const Options& options, std::ostream& out) {
    const ResultSnapshot before = SnapshotScanResult(session.dir);
    const ActivitySnapshot activity = SnapshotActivity(session.dir);
    session.manager->StartDiagnosticsScan(options.scheduled ? 0 : DiagnosticsManager::kManualScanRequest,
                                          std::nullopt);
    session.manager->WaitForScanToFinish();
    const std::string trigger = options.scheduled ? "Scheduled" : "Manual";
    const auto result = ScanResultWrittenSince(session.dir, before);
    const RunActivity done = ActivitySince(session.dir, activity);
    if (options.json) {
        out << JsonText(ScanDocument(session, trigger, result, done));
        return 0;
    }
    PrintScanSummary(out, session.dir, trigger, result);
    out << '\n' << FormatActivity(session.dir, done);
    return 0;
}

// Publishes and waits until the module has handled the notification and any
// scan it started has ended.
void Deliver(const Session& session, ZEPNotificationData notification) {
    session.hub->Publish(std::move(notification));
    session.hub->WaitUntilIdle();
    session.manager->WaitForScanToFinish();
}

std::string ElevationName(zep::platform::ElevationType elevation) {
    switch (elevation) {
        case zep::platform::Elevated: return "elevated";
        case zep::platform::User: return "user";
        case zep::platform::None: break;
    }
    return "none";
}

fs::path FolderPath(const std::wstring& folder) { return zep::path::ToFs(folder); }

// The plug-ins a request names, with the folders of their running instances
// as the module itself resolves them, and each folder's history before the run.
std::vector<PluginTarget> ResolvePluginTargets(const std::string& payload) {
    const auto env = zep::platform::CurrentEnv();
    std::vector<PluginTarget> targets;
    for (const auto& name : PluginTargets(payload)) {
        PluginTarget target{name, "", {}};
        std::wstring pluginId;
        std::vector<zep::platform::ElevationType> elevations;
        if (env->extensions->TryResolveGetDiagnosticsElevations(zep::text::FromUtf8(name), pluginId, elevations)) {
            target.pluginId = zep::text::ToUtf8(pluginId);
            for (const auto elevation : elevations) {
                const std::wstring folder = zep::plugins::PluginFolders::DiagFolder(elevation, pluginId);
                PluginInstance instance{ElevationName(elevation), folder.empty() ? fs::path() : FolderPath(folder), {}};
                if (!instance.folder.empty()) instance.history = SnapshotHistory(PluginHistoryPath(instance.folder));
                target.instances.push_back(std::move(instance));
            }
        }
        targets.push_back(std::move(target));
    }
    return targets;
}

// Whether the agent's own scan ran for a request, and why not.
enum class AgentScan { Ran, NotRequested, FilteredOut };

const char* AgentScanName(AgentScan scan) {
    switch (scan) {
        case AgentScan::Ran: return "ran";
        case AgentScan::NotRequested: return "not requested";
        case AgentScan::FilteredOut: break;
    }
    return "filtered out";
}

int RunNotify(const Session& session, const Options& options, std::ostream& out) {
    const std::string& payload = options.payload;
    const ResultSnapshot before = SnapshotScanResult(session.dir);
    const ActivitySnapshot activity = SnapshotActivity(session.dir);
    const std::vector<PluginTarget> plugins = ResolvePluginTargets(payload);
    Deliver(session, ZEPNotificationData(kTopicGetDiagnostics, kStateNone, L"run", L"getDiagnostics",
                                         zep::text::FromUtf8(payload)));
    const auto result = ScanResultWrittenSince(session.dir, before);
    // The module does not say whether it took the request; every scan it runs
    // for one rewrites the scan result, so an unchanged one means it ran none.
    const AgentScan agentScan = result                ? AgentScan::Ran
                                : !NamesAgent(payload) ? AgentScan::NotRequested
                                                       : AgentScan::FilteredOut;

    // The agent's uploads here, each plug-in's with its plug-in.
    RunActivity done = ActivitySince(session.dir, activity);
    std::vector<RunActivity> pluginUploads;
    for (const auto& plugin : plugins) {
        pluginUploads.push_back(plugin.pluginId.empty() ? RunActivity{} : TakePluginActivity(done, plugin.pluginId));
    }
    if (options.json) {
        Json::Value document = ScanDocument(session, "Mqtt", result, done);
        document["agentScan"] = AgentScanName(agentScan);
        document["plugins"] = Json::Value(Json::arrayValue);
        for (std::size_t i = 0; i < plugins.size(); ++i) {
            document["plugins"].append(PluginTargetJson(plugins[i], pluginUploads[i]));
        }
        out << JsonText(document);
        return 0;
    }
    PrintScanSummary(out, session.dir, "Mqtt", result);
    out << '\n' << FormatActivity(session.dir, done);
    if (agentScan == AgentScan::NotRequested) {
        out << "\nThe request does not name \"zep\": the agent's own scan did not run.\n";
    } else if (agentScan == AgentScan::FilteredOut) {
        out << "\nNo scan result was written for this notification: it was filtered out (rate limit) or its "
               "targets leave out every component scanned here. See the module log.\n";
    }
    for (std::size_t i = 0; i < plugins.size(); ++i) {
        out << '\n' << FormatPluginTarget(session.dir, plugins[i], pluginUploads[i]);
    }
    return 0;
}

// Every plug-in diagnostics folder the module's deferred pass looks at: one
// per plug-in below the agent's plug-in data and the logged-in user's.
std::vector<fs::path> PluginDiagFolders() {
    std::vector<fs::path> roots;
    if (const auto appData = zep::platform::CurrentEnv()->system->AppDataRoot()) {
        roots.push_back(FolderPath(*appData) / "plugin-data");
    }
    std::wstring localAppData;
    if (zep::plugins::PluginFolders::LoggedInUserLocalAppData(localAppData) && !localAppData.empty()) {
        roots.push_back(FolderPath(localAppData) / "Quorin" / "Zep" / "plugin-data");
    }
    std::vector<fs::path> folders;
    for (const auto& root : roots) {
        std::error_code code;
        for (fs::directory_iterator it(root, code), end; !code && it != end; it.increment(code)) {
            std::error_code kind;
            if (fs::is_directory(it->path() / "diagnostics", kind)) folders.push_back(it->path() / "diagnostics");
        }
    }
    std::sort(folders.begin(), folders.end());
    return folders;
}

// The module resumes a deferred upload on the hub's thread; Deliver waits for
// it. The history's last line before and after shows a status rewritten from
// 2 (offline) to what the upload achieved.
int RunOnline(const Session& session, const Options& options, std::ostream& out) {
    const ActivitySnapshot activity = SnapshotActivity(session.dir);
    const std::optional<std::string> lastBefore = LastHistoryLine(session.dir);
    std::vector<std::pair<fs::path, FileSnapshot>> pluginHistories;
    for (const auto& folder : PluginDiagFolders()) {
        pluginHistories.emplace_back(folder, SnapshotHistory(PluginHistoryPath(folder)));
    }
    Deliver(session, DeviceOnlineNotification());
    const RunActivity done = ActivitySince(session.dir, activity);
    if (options.json) {
        Json::Value document(Json::objectValue);
        document["deviceFolder"] = Shown(session.dir);
        document["delivered"] = true;
        MergeInto(document, ActivityJson(done));
        document.removeMember("historyLine");
        document["historyBefore"] = HistoryLineJson(lastBefore);
        document["historyAfter"] = HistoryLineJson(LastHistoryLine(session.dir));
        document["plugins"] = Json::Value(Json::arrayValue);
        for (const auto& [folder, before] : pluginHistories) {
            Json::Value change = PluginHistoryChangeJson(folder, before);
            if (!change.isNull()) document["plugins"].append(std::move(change));
        }
        document["moduleLog"] = Shown(ModuleLogPath(session.dir));
        out << JsonText(document);
        return 0;
    }
    out << "Device folder:     " << Shown(session.dir) << '\n'
        << "The online notification was delivered to the module.\n\n"
        << FormatUploads(session.dir, done) << '\n'
        << FormatHistoryLine("History before", lastBefore, "none")
        << FormatHistoryLine("History after", LastHistoryLine(session.dir), "none") << '\n';
    // The deferred pass rewrites the last line of each plug-in folder it uploaded.
    for (const auto& [folder, before] : pluginHistories) {
        const std::string change = FormatPluginHistoryChange(folder, before);
        if (!change.empty()) out << change << '\n';
    }
    out << FormatEvents(done) << "Module log:        " << Shown(ModuleLogPath(session.dir)) << '\n';
    return 0;
}

int RunHistory(const fs::path& dir, const Options& options, std::ostream& out, std::ostream& err) {
    // Only read: a folder that is not a device is not made one here.
    switch (InspectDeviceFolder(dir)) {
        case FolderKind::Device: break;
        case FolderKind::Missing:
            err << "zepdiag: " << Shown(dir) << " does not exist; create a device folder with 'zepdiag init --device "
                << Shown(dir) << "'\n";
            return kUnusable;
        case FolderKind::Empty:
        case FolderKind::Other:
            ReportNotADevice(dir, err);
            return kUnusable;
        case FolderKind::NotADirectory:
            err << "zepdiag: " << Shown(dir) << " exists and is not a folder\n";
            return kUnusable;
    }
    if (options.json) {
        out << JsonText(HistoryJson(dir, ReadScanHistory(dir)));
        return 0;
    }
    out << "Scan history:      " << Shown(ScanHistoryPath(dir)) << "\n\n"
        << FormatHistoryTable(ReadScanHistory(dir));
    return 0;
}

// One zepdiag run at a time per device folder: two would interleave their
// scans, uploads and summaries. The lock lives as long as the result.
std::unique_ptr<zep::platform::FileLock> LockDeviceFolder(const fs::path& dir, bool wait, std::ostream& err) {
    std::error_code code;
    fs::create_directories(dir, code);
    const auto folder = zep::platform::DefaultEnv().files->OpenFolder(zep::path::FromFs(dir));
    zep::platform::FsStatus status;
    auto lock = folder ? folder->Lock(zep::text::FromUtf8(kRunLockName), wait, &status) : nullptr;
    if (lock) return lock;
    if (status.error == zep::platform::FsError::Busy) {
        err << "zepdiag: " << Shown(dir) << " is in use by another zepdiag run (--no-wait: not waiting)\n";
    } else {
        err << "zepdiag: cannot lock " << Shown(dir) << ": " << status.message << '\n';
    }
    return nullptr;
}

int Run(const Options& options, std::ostream& out, std::ostream& err) {
    if (options.command == Command::Help) {
        out << UsageText();
        return 0;
    }
    const fs::path dir = DeviceFolderPath(options.device);
    if (options.command == Command::History) return RunHistory(dir, options, out, err);
    // Only a folder zepdiag may write to is locked; anything else is refused
    // below, untouched. The service does not hold it: it scans through the
    // module, whose own lock keeps its scans and any other run's apart, and a
    // command run by hand must not wait for the service to end.
    std::unique_ptr<zep::platform::FileLock> lock;
    if (const FolderKind kind = InspectDeviceFolder(dir);
        options.command != Command::Serve && kind != FolderKind::Other && kind != FolderKind::NotADirectory) {
        lock = LockDeviceFolder(dir, !options.noWait, err);
        if (!lock) return kBusy;
    }
    if (options.command == Command::Init) return RunInit(dir, out, err);
    // With --json, standard output holds the document alone.
    if (!PrepareDeviceFolder(dir, options.json ? err : out, err)) return kUnusable;

    if (options.command == Command::Serve) {
#ifdef _WIN32
        // On Windows the agent's service talks to the cloud.
        err << "zepdiag: serve runs on Linux only\n";
        return kUnusable;
#else
        return serve::RunServe(options.serve, dir, err);
#endif
    }
    const auto hub = NewHub();
    zep::platform::Env env = DeviceFolderEnv(dir, hub);
    if (options.native) env.collection = zep::platform::NativeCollectionEnv();
    const Session session = StartModule(dir, hub, std::move(env));
    switch (options.command) {
        case Command::Scan: return RunScan(session, options, out);
        case Command::Notify: return RunNotify(session, options, out);
        case Command::Online: return RunOnline(session, options, out);
        case Command::Help:
        case Command::Init:
        case Command::History:
        case Command::Serve: break;
    }
    return kFailure;
}

}  // namespace

int RunZepdiag(int argc, char** argv, std::ostream& out, std::ostream& err) {
    const std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + (argc > 0 ? argc : 0));
    const ParsedCommandLine parsed = ParseCommandLine(args);
    if (!parsed.options) {
        err << "zepdiag: " << parsed.error << "\n\n" << UsageText();
        return kUnusable;
    }
    try {
        return Run(*parsed.options, out, err);
    } catch (const std::exception& ex) {
        err << "zepdiag: " << ex.what() << '\n';
    } catch (...) {
        err << "zepdiag: unexpected failure\n";
    }
    return kFailure;
}

#include "Zepdiag.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Cli.h"
#include "DemoDevice.h"
#include "DiagnosticScanner/DiagnosticsManager.h"
#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "Summary.h"
#include "platform/Env.h"
#include "platform/InProcessHub.h"
#include "platform/Strings.h"
#include "platform/ZEPNotificationData.h"
#include "platform/posix/DeviceFolderEnv.h"
#include "plugins/PluginFolders.h"

namespace {

namespace fs = std::filesystem;
using zep::platform::InProcessHub;
using namespace zepdiag;

constexpr int kFailure = 1;
constexpr int kUnusable = 2;  // usage errors and folders that are no device

// The hub's topics and states that the module listens to.
constexpr int kTopicGetDiagnostics = 3;
constexpr int kTopicNetwork = 6;
constexpr int kStateNone = 0;

// The manager is a process-wide singleton that subscribes to the hub of the
// Env installed when Init runs and never unsubscribes from it. Every hub is
// therefore kept until the process ends, so that nothing the manager holds
// names a hub that is gone.
std::shared_ptr<InProcessHub> NewHub() {
    static std::mutex mutex;
    static std::vector<std::shared_ptr<InProcessHub>> hubs;
    auto hub = std::make_shared<InProcessHub>();
    std::lock_guard<std::mutex> lock(mutex);
    hubs.push_back(hub);
    return hub;
}

// Absolute and without a trailing separator, so that what is printed is the
// path the module itself logs.
fs::path DeviceFolderPath(const std::string& argument) {
    std::error_code code;
    fs::path dir = fs::absolute(argument, code);
    if (code) dir = argument;
    dir = dir.lexically_normal();
    if (!dir.has_filename() && dir != dir.root_path()) dir = dir.parent_path();
    return dir;
}

bool CreateDemo(const fs::path& dir, std::ostream& out, std::ostream& err) {
    std::string error;
    if (!CreateDemoDevice(dir, std::chrono::system_clock::now(), error)) {
        err << "zepdiag: cannot create the demo device in " << dir.string() << ": " << error << '\n';
        return false;
    }
    out << "Created a demo device in " << dir.string() << '\n';
    return true;
}

int RunInit(const fs::path& dir, std::ostream& out, std::ostream& err) {
    switch (InspectDeviceFolder(dir)) {
        case FolderKind::Device:
            // Running init twice is harmless: the device and whatever was
            // changed in it stay as they are.
            out << dir.string() << " is a device folder already; nothing was changed.\n";
            return 0;
        case FolderKind::Other:
            err << "zepdiag: " << dir.string()
                << " is not empty and is not a device folder; choose a new or empty folder\n";
            return kUnusable;
        case FolderKind::NotADirectory:
            err << "zepdiag: " << dir.string() << " exists and is not a folder\n";
            return kUnusable;
        case FolderKind::Missing:
        case FolderKind::Empty: break;
    }
    return CreateDemo(dir, out, err) ? 0 : kUnusable;
}

void ReportNotADevice(const fs::path& dir, std::ostream& err) {
    err << "zepdiag: " << dir.string()
        << " is not a device folder (it has neither device.json nor programdata/); "
           "create one with 'zepdiag init --device <new folder>'\n";
}

// A device folder ready for the module: a missing or empty one becomes a demo
// device first. False (with the reason on `err`) when it cannot be used.
bool PrepareDeviceFolder(const fs::path& dir, std::ostream& out, std::ostream& err) {
    switch (InspectDeviceFolder(dir)) {
        case FolderKind::Device: return true;
        case FolderKind::Missing:
        case FolderKind::Empty: return CreateDemo(dir, out, err);
        case FolderKind::Other:
            ReportNotADevice(dir, err);
            return false;
        case FolderKind::NotADirectory:
            err << "zepdiag: " << dir.string() << " exists and is not a folder\n";
            return false;
    }
    return false;
}

// The module running on one device folder, with a hub of its own.
struct Session {
    fs::path dir;
    std::shared_ptr<InProcessHub> hub;
    DiagnosticsManager* manager = nullptr;
};

Session StartModule(const fs::path& dir) {
    Session session{dir, NewHub(), nullptr};
    zep::platform::InstallEnv(zep::platform::MakeDeviceFolderEnv(zep::text::DecodeFileName(dir.native()), session.hub));
    session.manager = DiagnosticsManager::GetInstance();
    // Init again on every call: it subscribes to the hub just installed and
    // opens the log of this device folder.
    session.manager->Init(nullptr);
    return session;
}

int RunScan(const Session& session, bool scheduled, std::ostream& out) {
    const ResultSnapshot before = SnapshotScanResult(session.dir);
    const ActivitySnapshot activity = SnapshotActivity(session.dir);
    session.manager->StartDiagnosticsScan(scheduled ? 0 : DiagnosticsManager::kManualScanRequest, std::nullopt);
    session.manager->WaitForScanToFinish();
    PrintScanSummary(out, session.dir, scheduled ? "Scheduled" : "Manual",
                     ScanResultWrittenSince(session.dir, before));
    out << '\n' << FormatActivity(session.dir, ActivitySince(session.dir, activity));
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

fs::path FolderPath(const std::wstring& folder) { return fs::path(zep::text::EncodeFileName(folder)); }

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

int RunNotify(const Session& session, const std::string& payload, std::ostream& out) {
    const ResultSnapshot before = SnapshotScanResult(session.dir);
    const ActivitySnapshot activity = SnapshotActivity(session.dir);
    const std::vector<PluginTarget> plugins = ResolvePluginTargets(payload);
    Deliver(session, ZEPNotificationData(kTopicGetDiagnostics, kStateNone, L"run", L"getDiagnostics",
                                         zep::text::FromUtf8(payload)));
    const auto result = ScanResultWrittenSince(session.dir, before);
    PrintScanSummary(out, session.dir, "Mqtt", result);

    // The agent's uploads here, each plug-in's with its plug-in.
    RunActivity done = ActivitySince(session.dir, activity);
    std::vector<RunActivity> pluginUploads;
    for (const auto& plugin : plugins) {
        pluginUploads.push_back(plugin.pluginId.empty() ? RunActivity{} : TakePluginActivity(done, plugin.pluginId));
    }
    out << '\n' << FormatActivity(session.dir, done);
    if (!result && !NamesAgent(payload)) {
        out << "\nThe request does not name \"zep\": the agent's own scan did not run.\n";
    } else if (!result) {
        // The module does not say whether it took the request; every scan it
        // runs for one rewrites the scan result, so an unchanged one means it
        // ran none (rate limit, or targets this device does not scan).
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
int RunOnline(const Session& session, std::ostream& out) {
    const ActivitySnapshot activity = SnapshotActivity(session.dir);
    const std::optional<std::string> lastBefore = LastHistoryLine(session.dir);
    std::vector<std::pair<fs::path, FileSnapshot>> pluginHistories;
    for (const auto& folder : PluginDiagFolders()) {
        pluginHistories.emplace_back(folder, SnapshotHistory(PluginHistoryPath(folder)));
    }
    Deliver(session, ZEPNotificationData(kTopicNetwork, kStateNone, L"", L"", L""));
    const RunActivity done = ActivitySince(session.dir, activity);
    out << "Device folder:     " << session.dir.string() << '\n'
        << "The online notification was delivered to the module.\n\n"
        << FormatUploads(session.dir, done) << '\n'
        << FormatHistoryLine("History before", lastBefore, "none")
        << FormatHistoryLine("History after", LastHistoryLine(session.dir), "none") << '\n';
    // The deferred pass rewrites the last line of each plug-in folder it uploaded.
    for (const auto& [folder, before] : pluginHistories) {
        const std::string change = FormatPluginHistoryChange(folder, before);
        if (!change.empty()) out << change << '\n';
    }
    out << FormatEvents(done) << "Module log:        " << ModuleLogPath(session.dir).string() << '\n';
    return 0;
}

int RunHistory(const fs::path& dir, std::ostream& out, std::ostream& err) {
    // Only read: a folder that is not a device is not made one here.
    switch (InspectDeviceFolder(dir)) {
        case FolderKind::Device: break;
        case FolderKind::Missing:
            err << "zepdiag: " << dir.string() << " does not exist; create a device folder with 'zepdiag init --device "
                << dir.string() << "'\n";
            return kUnusable;
        case FolderKind::Empty:
        case FolderKind::Other:
            ReportNotADevice(dir, err);
            return kUnusable;
        case FolderKind::NotADirectory:
            err << "zepdiag: " << dir.string() << " exists and is not a folder\n";
            return kUnusable;
    }
    out << "Scan history:      " << ScanHistoryPath(dir).string() << "\n\n"
        << FormatHistoryTable(ReadScanHistory(dir));
    return 0;
}

int Run(const Options& options, std::ostream& out, std::ostream& err) {
    if (options.command == Command::Help) {
        out << UsageText();
        return 0;
    }
    const fs::path dir = DeviceFolderPath(options.device);
    if (options.command == Command::Init) return RunInit(dir, out, err);
    if (options.command == Command::History) return RunHistory(dir, out, err);
    if (!PrepareDeviceFolder(dir, out, err)) return kUnusable;

    const Session session = StartModule(dir);
    switch (options.command) {
        case Command::Scan: return RunScan(session, options.scheduled, out);
        case Command::Notify: return RunNotify(session, options.payload, out);
        case Command::Online: return RunOnline(session, out);
        case Command::Help:
        case Command::Init:
        case Command::History: break;
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

// The diagnostics module's one object: the agent's service obtains it with
// GetInstance(), calls Init once, and from then on scans run when the cloud
// asks over MQTT or when the service calls StartDiagnosticsScan.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "DiagnosticScanner/DiagnosticsParams.h"
#include "DiagnosticScanner/AgentTypes.h"
#include "DiagnosticScanner/Export.h"
#include "DiagnosticScanner/IDiagnosticsGenerator.h"
#include "DiagnosticScanner/Tests.h"

class ZEPNotificationData;
namespace Json {
class Value;
}
namespace zep::platform {
struct Package;
}

class DIAGSCANNER_API DiagnosticsManager {
public:
    // Outcome of one component's run, as written into its result document.
    enum ResultType : std::int32_t { Complete = 0, ErrorTimeOut = 1, ErrorGeneral = 2 };

    // One component's outcome as the manager carries it.
    struct commonComponent {
        std::wstring executionTime;  // FormatExecutionTime text, or "0"
        std::wstring resultType;     // GetResultType text
        std::wstring componentId;
        std::wstring friendlyName;
        std::int32_t failedTests = 0;  // non-zero means problematic
    };

    // One parsed line of a scan history: six comma-separated fields.
    struct ScanHistoryEntry {
        std::wstring timeStamp;
        std::int32_t triggerType = 0;  // 0 manual, 1 scheduled, 2 mqtt
        std::uint8_t sentToCloud = 0;  // 0 uploaded, 1 failed, 2 offline
        std::uint8_t artifactStatus = 0;
        std::int32_t failedTestCount = 0;
        std::wstring problemSignature;
    };

    // Request codes of StartDiagnosticsScan.
    static constexpr unsigned long kManualScanRequest = 211;
    static constexpr unsigned long kMqttScanRequest = 2;
    // A plug-in's zip is made only with at least this much free disk (50 MiB).
    // Defined in the library, which exports it.
    static const std::uint64_t kMinDiskSpaceForPluginZipBytes;

    static DiagnosticsManager* GetInstance();

    DiagnosticsManager();
    ~DiagnosticsManager();
    DiagnosticsManager(const DiagnosticsManager&) = delete;
    DiagnosticsManager& operator=(const DiagnosticsManager&) = delete;

    // Subscribes to the hub, accepts notifications from then on and opens the
    // module's log. `context` is handed back to the platform with every child
    // process the module starts.
    void Init(void* context);

    // Starts one scan on a new worker thread once the previous scan has ended
    // (the caller waits for it). 211: manual, 2: MQTT, anything else: scheduled.
    void StartDiagnosticsScan(unsigned long requestCode, std::optional<DiagnosticsParams> params);
    // Blocks until the latest scan's worker has ended. Hosts call it before
    // they exit so that no scan is cut off half-way.
    void WaitForScanToFinish();

    void ParseDiagnosticsParameters(ZEPNotificationData& data, DiagnosticsParams& params);

    // One scan, on the worker thread.
    void GenerateDiagnostics(unsigned long requestCode, std::optional<DiagnosticsParams> params);
    void RunDiagnostics(std::shared_ptr<zep::diagnostics::IDiagnosticsGenerator> generator,
                        std::wstring& executionTime, ResultType& result);
    void HandleFlowAfterRunOfTests(commonComponent& component);
    void GenerateDiagnosticsForPackages();
    // Writes the time-out result of a package whose script ran too long.
    void GenerateComponentResultForPackage(const zep::platform::Package& package, const std::wstring& outputFolder);
    // Uploads the scan's zip, or only its scan result (a scheduled scan whose
    // problems were reported already; an unregistered device without a
    // provisioning backup), unless the device is offline.
    void UploadDiagnosticsResults();
    bool IsProvisionBackupAvailable() const;
    // Reads and verifies the provisioning backup's token; `token` is filled
    // even when verification fails, and used only after true.
    bool FetchVerifiedProvisionTokenFromBackUp(std::string& token) const;
    // 0 uploaded, 1 connected but not uploaded, 2 not connected.
    int GetFileUploadToCloudStatus() const;
    // Whether the device is meant for an organisation.
    bool IsCommercialIntent() const;
    // Stages the scan's files, the agent's context and logs, and packs them.
    void CreateZipFolder();
    // Packs `sourceDir` into `destinationDir`\`zipFileName` and deletes
    // `sourceDir` once the archive exists.
    void CreateZip(std::wstring sourceDir, std::wstring destinationDir, std::wstring zipFileName);
    void GenerateScanResultInJson();
    bool IsProblemSignatureDuplicate(std::wstring signature);
    bool ParseScanHistoryLine(const std::wstring& line, ScanHistoryEntry& entry);
    // Removes lines from the front until at most `maxLines` remain.
    void ProcessCyclicBuffer(std::vector<std::wstring>& lines, int maxLines);
    // The last line of a text file; empty when there is none.
    std::wstring GetLastLineInFile(std::wstring& path);
    // Rewrites fields 3 and 4 of the history file's last line.
    bool UpdateStatusForLastLineInScanHistoryFile(const std::wstring& path, const int& sentToCloud,
                                                  const int& artifactStatus);
    // Completes an upload that the last scan left for when the device is online.
    void DeviceHasComeOnline();

    // The results of the latest scan.
    bool GetIsProblematic() const;
    bool GetNetworkStatus() const;
    bool GetFileUploadStatus() const;
    int GetArtifactIncludedStatus() const;
    int GetTotalTestFailureCount() const;
    std::wstring GetScanID() const;
    std::wstring GetDiagnosticsCompletedTime() const;
    std::wstring GetProblemSignature() const;
    std::wstring GetTotalExecutionTime();

private:
    friend class DiagnosticsManagerTestPeer;
    // Plug-in results reuse the manager's result-file and history operations.
    friend class PluginDiagnosticsProcessor;

    void OnNotification(ZEPNotificationData& data);
    // The scan name for this scan: the request id when it can name a folder,
    // else a new GUID.
    std::wstring ChooseScanName(const std::wstring& id);
    void GenerateDiagnosticsForZEP();
    void RunZepBranch();
    void ResetComponentResultValues();
    int GetFailedZepTestsCount();

    Json::Value GetJsonCommonData(commonComponent& component);
    void GetComponentResultsInJson(Json::Value& out);
    void SaveComponentResultsToFile(Json::Value& doc, std::wstring path);
    void FormatExecutionTime(float seconds, std::wstring& out);
    std::wstring GetResultType(ResultType& result);
    std::wstring GetTriggerType();

    void ParseComponentJson(const std::string& path, std::vector<Json::Value>& out);
    std::vector<std::string> GetAllJsonFilePaths(const std::string& folder);
    void RepopulateComponentResultValues();
    std::wstring GetCurrentTimeStamp();
    bool GenerateProblemSignature(const std::vector<Json::Value>& components, std::wstring& signature);

    void GetScanFolderPath(std::wstring& out);
    void GetComponentFolderPath(std::wstring& out);
    void GetZipFolderName(std::wstring& out);
    bool CreateIntermediateDirectories(const std::wstring& path);
    void CopyDataInZip(const std::wstring& stagingFolder);
    void CopyScanResultFile(const std::wstring& stagingFolder);

    void AddZEPContext(const std::wstring& agentFolder);
    void AddZEPFolderInfo(const std::wstring& contextFolder);
    void AddSyncDBToContextFolder(const std::wstring& contextFolder);
    void AddZEPVersionInfo(const std::wstring& contextFolder);
    void AddZEPRegistryData(const std::wstring& contextFolder);
    void AddZEPLog(const std::wstring& agentFolder);
    void AddIfArtifactsWereProvided(const std::wstring& resultFilePath);

    void AddArtifactSize();
    void GetMetadata(std::string& metadata, std::wstring& scanResultPath, std::wstring& filePath);
    void LogFileUploadResut(std::string fileType, FileStorageAgent::StoragError error);
    void GenerateScanHistory();
    void ProcessDeferredPluginUploads();
    void LogCriticalEvent();
    void GeneratePluginDiagnosticsForMqttTarget(const std::wstring& target);

    static std::atomic<DiagnosticsManager*> _diagnosticsManager;
    static std::mutex _instanceMutex;
    // The test time-out in seconds, process-wide: a registry value read by one
    // scan stays in force for the later ones.
    static std::atomic<std::uint32_t> _testTimeoutInSeconds;

    std::wstring subscriptionId;
    std::wstring componentResultFileName = L"component-result.json";
    bool isProblematic = false;
    bool contextCollected = false;     // the agent's context went into the staging folder
    bool logsCollected = false;        // the agent's logs went into the staging folder
    bool networkStatus = true;         // false once an upload was skipped for being offline
    bool fileUploadStatus = false;     // the last upload succeeded
    std::atomic<bool> initialized{false};
    void* hostContext = nullptr;
    std::int32_t artifactIncludedStatus = 1;  // the history's artifact status: 1 until the zip's upload is tried
    std::wstring diagnosticsCompletedTime;  // when the built-in component's result was saved
    std::int32_t totalTestFailureCount = 0;
    float _totalExecutionTime = 0.0f;
    std::wstring scanID;     // names the scan's folders and zip
    std::wstring requestId;  // of the accepted MQTT request
    std::wstring problemSignature;
    std::uint32_t triggerType = 0;
    std::shared_ptr<zep::diagnostics::IDiagnosticsGenerator> generator;
    std::mutex scanMutex;  // the rate-limit state; held by the worker for a whole scan
    std::unique_ptr<std::thread> scanThread;
    std::mutex scanThreadMutex;  // serialises the callers of StartDiagnosticsScan
    std::atomic<std::thread::id> scanThreadId{};  // the worker's id, readable without that lock
    std::vector<zep::diagnostics::Tests> tests;
    ResultType resultType = static_cast<ResultType>(-1);
    bool hasLastRequest = false;
    std::int64_t lastRequestTime = 0;
};

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
#include "DiagnosticScanner/Export.h"
#include "DiagnosticScanner/IDiagnosticsGenerator.h"
#include "DiagnosticScanner/Tests.h"

class ZEPNotificationData;
namespace Json {
class Value;
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

    // Request codes of StartDiagnosticsScan.
    static constexpr unsigned long kManualScanRequest = 211;
    static constexpr unsigned long kMqttScanRequest = 2;

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
    void UploadDiagnosticsResults();
    void CreateZipFolder();
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

    void GetScanFolderPath(std::wstring& out);
    void GetComponentFolderPath(std::wstring& out);
    void GetZipFolderName(std::wstring& out);

    void GenerateScanResultInJson();
    void AddArtifactSize();
    void GenerateScanHistory();
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
    std::int32_t artifactIncludedStatus = 1;
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

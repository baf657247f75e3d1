// Request intake: hub notifications, their filter and rate limit, the payload,
// and the hand-off of each scan to a worker thread.
#include <limits>
#include <system_error>

#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/util/JsonText.h"
#include "platform/agent/CommonBase.h"
#include "platform/env/Env.h"
#include "platform/agent/ZEPShared.h"

namespace {

constexpr const char* kOnNotification = "DiagnosticsManager::OnNotification";
constexpr const char* kParse = "DiagnosticsManager::ParseDiagnosticsParameters";
constexpr DWORD kDefaultRateLimitMinutes = 10;
constexpr std::int64_t kNanosecondsPerMinute = 60'000'000'000;

// The device reports that the network is back: topic 6 with state 0, or
// topic 10 with state 13.
bool IsDeviceOnlineNotification(const ZEPNotificationData& data) {
    return (data.getTopicId() == 6 && data.getEventState() == 0) ||
           (data.getTopicId() == 10 && data.getEventState() == 13);
}

DWORD RateLimitMinutes() {
    DWORD minutes = kDefaultRateLimitMinutes;
    if (DeveloperSettings::GetInstance()->EnableCustomSettings()) {
        DWORD configured = 0;
        if (CRegUtil::GetRegValueOfDwordType(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Quorin\\ZEP",
                                             L"GetDiagnosticsMqttRateLimit", configured) != 0 &&
            configured != 0) {
            minutes = configured;
        }
    }
    return minutes;
}

// minutes x 60e9 without overflowing for any DWORD.
std::int64_t IntervalNanoseconds(DWORD minutes) {
    const auto cap = std::numeric_limits<std::int64_t>::max() / kNanosecondsPerMinute;
    if (static_cast<std::int64_t>(minutes) > cap) return std::numeric_limits<std::int64_t>::max();
    return static_cast<std::int64_t>(minutes) * kNanosecondsPerMinute;
}

// "cmd_param" of the payload, or null when any level is missing or not an
// object.
const Json::Value& CommandParameters(const Json::Value& root) {
    static const Json::Value kNull;
    const Json::Value* level = &root;
    for (const char* key : {"zep-message", "action", "cmd_param"}) {
        if (!level->isObject()) return kNull;
        level = &(*level)[key];
    }
    return level->isObject() ? *level : kNull;
}

}  // namespace

void DiagnosticsManager::OnNotification(ZEPNotificationData& data) {
    g_log.d(L"%s received; topicID: %d, eventState: %d  isQCPNotification: %d", kOnNotification,
            data.getTopicId(), data.getEventState(), data.isQCPNotification());
    if (!initialized) {
        g_log.d(L"%s: Not ready to receive notifications as initialization is not completed!", kOnNotification);
        return;
    }
    try {
        if (data.isExtensionNotification()) return;
        if (!data.isQCPNotification() && IsDeviceOnlineNotification(data)) {
            DeviceHasComeOnline();
            return;
        }
        if (data.getActionType() != L"run" || !String::CaseInsesitiveEqual(data.getMessageType(), L"getDiagnostics")) {
            return;
        }

        const DWORD minutes = RateLimitMinutes();
        const std::int64_t now = zep::platform::CurrentEnv()->clock->SteadyNow().count();
        {
            // Held by a running scan for its whole length: a request that
            // arrives meanwhile waits here and is judged when the scan ends.
            std::lock_guard<std::mutex> lock(scanMutex);
            if (hasLastRequest && now - lastRequestTime < IntervalNanoseconds(minutes)) {
                g_log.e(L"%s: getDiagnostics rate limit exceeded. minimum interval is %d minutes.", kOnNotification,
                        minutes);
                return;
            }
            lastRequestTime = now;
            hasLastRequest = true;
        }

        DiagnosticsParams params;
        ParseDiagnosticsParameters(data, params);
        {
            // A host-started scan may be running; the request id is scan state.
            std::lock_guard<std::mutex> lock(scanMutex);
            requestId = params.requestId;
        }
        StartDiagnosticsScan(kMqttScanRequest, params);
    } catch (const std::exception& ex) {
        g_log.d(L"OnZEPNotification failed with error: %s", String::UTF8ToUTF16(ex.what()));
    } catch (...) {
        g_log.d(L"OnZEPNotification failed with error: %s", L"unknown exception");
    }
}

void DiagnosticsManager::ParseDiagnosticsParameters(ZEPNotificationData& data, DiagnosticsParams& params) {
    params.requestId.clear();
    params.targets.clear();

    const std::wstring& payload = data.getPayload();
    if (payload.empty()) {
        g_log.d(L"%s: empty notification payload", kParse);
        params.targets.insert(L"zep");
        return;
    }
    g_log.d(L"%s: parsing notification payload: %s", kParse, payload);

    Json::Value root;
    std::string errors;
    if (!zep::json::Parse(String::UTF16ToUTF8(payload), root, &errors)) {
        g_log.d(L"%s: JSON parse failed: %s", kParse, errors);
        params.targets.insert(L"zep");
        return;
    }

    const Json::Value& parameters = CommandParameters(root);
    if (parameters.isObject()) {
        const Json::Value& id = parameters["requestId"];
        if (id.isString()) params.requestId = String::ToLower(String::UTF8ToUTF16(id.asString()));
    }
    const Json::Value& target = parameters.isObject() ? parameters["target"] : Json::Value::nullSingleton();
    if (target.isArray()) {
        // An empty array asks for nothing: "zep" is only the default when the
        // request names no targets at all.
        for (const auto& element : target) {
            if (element.isString()) params.targets.insert(String::ToLower(String::UTF8ToUTF16(element.asString())));
        }
    } else {
        params.targets.insert(L"zep");
    }
}

void DiagnosticsManager::StartDiagnosticsScan(unsigned long requestCode, std::optional<DiagnosticsParams> params) {
    // A worker that starts a scan would join itself. It is refused before it
    // could wait for a caller that is joining it.
    if (scanThreadId.load() == std::this_thread::get_id()) {
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
    }
    // Callers take turns: the second waits here while the first joins the
    // previous worker, so the thread object is never touched by two at once.
    std::lock_guard<std::mutex> guard(scanThreadMutex);
    if (scanThread && scanThread->joinable()) scanThread->join();
    scanThread.reset();
    scanThread = std::make_unique<std::thread>(
        [this, requestCode, scanParams = std::move(params)]() mutable {
            // Nothing may escape a worker: std::terminate would end the
            // agent's service. The scan lock is released by its guard.
            try {
                scanThreadId = std::this_thread::get_id();
                GenerateDiagnostics(requestCode, std::move(scanParams));
            } catch (const std::exception& ex) {
                g_log.e(L"%s: scan ended by an exception: %s", "DiagnosticsManager::StartDiagnosticsScan",
                        String::UTF8ToUTF16(ex.what()));
            } catch (...) {
                g_log.e(L"%s: scan ended by an exception: %s", "DiagnosticsManager::StartDiagnosticsScan",
                        L"unknown exception");
            }
            // Thread ids are reused: a later thread must not be taken for this one.
            scanThreadId = std::thread::id();
        });
}

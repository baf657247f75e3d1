#include "platform/device/FolderPolicy.h"

#include <json/json.h>

#include "platform/device/PlatformPolicyFile.h"
#include "platform/env/Beneath.h"
#include "platform/util/JsonText.h"
#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

class FolderPolicy : public PolicyEnv {
public:
    explicit FolderPolicy(std::shared_ptr<Folder> folder) : folder_(std::move(folder)) {}

    UpdatePolicy GetUpdatePolicy() override {
        std::string text;
        if (!ReadFileIn(*folder_, L"update-policy.json", kMaxUpdatePolicyBytes, text)) return UpdatePolicy{};
        return ParseUpdatePolicy(text);
    }

    std::wstring GetPackageRepositoryFolder(const Package& package) override {
        return JoinPath(JoinPath(folder_->Path(), L"packages"), package.id);
    }

    PlatformPolicy GetPlatformPolicy() override {
        std::string text;
        if (!ReadFileIn(*folder_, L"platform-policy.json", kMaxPlatformPolicyBytes, text)) return PlatformPolicy();
        return ParsePlatformPolicy(text);
    }

private:
    const std::shared_ptr<Folder> folder_;
};

}  // namespace

UpdatePolicy ParseUpdatePolicy(std::string_view text) {
    UpdatePolicy policy;
    zep::json::ParseOptions options;
    options.stackLimit = 64;
    const auto root = zep::json::ParseObject(text, options);
    if (!root) return policy;
    const Json::Value& packages = (*root)["packages"];
    if (!packages.isArray()) return policy;
    for (const auto& entry : packages) {
        if (!entry.isObject() || !entry["id"].isString()) continue;
        Package package;
        package.id = text::FromUtf8(entry["id"].asString());
        package.name = entry["name"].isString() ? text::FromUtf8(entry["name"].asString()) : package.id;
        policy.packages.push_back(std::move(package));
    }
    return policy;
}

std::shared_ptr<PolicyEnv> MakeFolderPolicy(std::shared_ptr<Folder> deviceFolder) {
    return std::make_shared<FolderPolicy>(std::move(deviceFolder));
}

}  // namespace zep::platform

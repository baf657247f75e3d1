#include <cstdlib>

#include "platform/env/AbsentAgent.h"
#include "platform/env/Env.h"
#include "platform/util/Strings.h"
#include "platform/posix/PosixClock.h"
#include "platform/posix/PosixFileSystem.h"
#include "platform/posix/PosixProcess.h"
#include "platform/posix/ShellPackageScript.h"

namespace zep::platform {
namespace {

// Without an agent the well-known folders are the system's own; the agent's
// data root is absent until a host says where it is.
class PosixSystem : public SystemEnv {
public:
    std::optional<std::wstring> AppDataRoot() override { return std::nullopt; }
    std::wstring TempFolder() override {
        const char* tmp = std::getenv("TMPDIR");
        std::wstring folder = tmp && *tmp ? text::DecodeFileName(tmp) : L"/tmp";
        if (folder.back() != L'/') folder.push_back(L'/');
        return folder;
    }
    std::wstring SystemDirectory() override { return L"/usr/bin"; }
    std::wstring WindowsDirectory() override { return L"/usr"; }
    std::wstring LoggedInUserSid() override { return L""; }
};

}  // namespace

Env DefaultEnv() {
    Env env = AbsentAgentEnv();
    env.files = std::make_shared<PosixFileSystem>();
    env.system = std::make_shared<PosixSystem>();
    env.registry = std::make_shared<EmptyRegistry>();
    env.processes = std::make_shared<PosixProcess>();
    env.clock = std::make_shared<PosixClock>();
    env.random = std::make_shared<PosixRandom>();
    env.collection = NativeCollectionEnv();
    return env;
}

std::shared_ptr<CollectionEnv> NativeCollectionEnv() {
    return std::make_shared<collect::NativeCollection>(ShellPackageScript());
}

}  // namespace zep::platform

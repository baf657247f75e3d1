// The module's logs in a device folder: DIR/programdata/Log/<name>, which
// moves to <name>.1 (and .1 to .2, ...) when the next line would take it past
// 5 MiB.
#pragma once

#include <memory>

#include "platform/env/FileSystemEnv.h"
#include "platform/env/LogEnv.h"

namespace zep::platform {

std::shared_ptr<LogEnv> MakeFolderLogs(std::shared_ptr<FileSystemEnv> files, std::wstring logFolder);

}  // namespace zep::platform

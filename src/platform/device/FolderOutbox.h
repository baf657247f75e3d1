// The storage agent and critical-event log of a device folder, so that a
// scan's uploads and events can be followed on disk.
//
// An upload succeeds by default and lands in DIR/outbox/NNNN/ (one numbered
// folder per upload, never reused): the file, its metadata document exactly
// as passed, and upload.json. The folder is written aside and renamed into
// place, so a folder that is there is complete. The answers of the next
// uploads can be forced, one code per line, through DIR/upload-results; a
// forced failure copies nothing and is recorded in DIR/outbox/failed.log.
// Events go to DIR/events.log, one JSON object per line.
#pragma once

#include <memory>

#include "platform/env/ClockEnv.h"
#include "platform/env/FileSystemEnv.h"
#include "platform/env/StorageEnv.h"

namespace zep::platform {

std::shared_ptr<StorageEnv> MakeFolderStorage(std::shared_ptr<FileSystemEnv> files, std::shared_ptr<Folder> deviceFolder,
                                              std::shared_ptr<ClockEnv> clock);
std::shared_ptr<EventEnv> MakeFolderEvents(std::shared_ptr<Folder> deviceFolder, std::shared_ptr<ClockEnv> clock);

}  // namespace zep::platform

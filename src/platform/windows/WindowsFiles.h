// The file objects of the Win32 backend, over handles that
// WindowsFileSystem.cpp has opened and checked.
#pragma once

#include <memory>

#include "platform/env/FileSystemEnv.h"
#include "platform/windows/Win32.h"

namespace zep::platform::win32 {

// Says why a call failed, in the seam's terms, and returns false.
bool Fail(FsStatus* status, FsError error, DWORD code = 0);
FsError ErrorOf(DWORD code);

EntryKind KindOf(DWORD attributes);
EntryInfo InfoOf(std::wstring name, const BY_HANDLE_FILE_INFORMATION& info);

std::unique_ptr<InputFile> MakeInputFile(Handle handle, EntryInfo info);
std::unique_ptr<OutputFile> MakeOutputFile(Handle handle);
// Takes the exclusive lock of the whole file; with `wait` it blocks until
// the lock is free, otherwise a lock held elsewhere fails with Busy.
std::unique_ptr<FileLock> LockWholeFile(Handle handle, bool wait, FsStatus* status);

}  // namespace zep::platform::win32

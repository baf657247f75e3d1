#include "platform/windows/Win32.h"

#include "platform/windows/WindowsProcess.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/util/OutputTail.h"
#include "platform/util/WindowsCommandLine.h"

namespace zep::platform {
namespace {

using std::chrono::milliseconds;
using win32::Handle;

// The longest command line CreateProcessW takes, with its terminating NUL.
constexpr std::size_t kMaxCommandLine = 32767;
constexpr UINT kEndedExitCode = 1;
// How long the end of a job or of the output may take before it is given up on.
constexpr DWORD kGraceMs = 10000;

// Inheritable handles are made, given to one child and closed under this
// lock: a child started by another thread meanwhile must not inherit them (a
// pipe's write end held by a stranger never reports its end). The handle
// list of each child says the same to Windows; the lock covers systems that
// ignore it.
std::mutex& InheritLock() {
    static std::mutex lock;
    return lock;
}

Handle OpenNul(DWORD access) {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    return Handle(::CreateFileW(L"NUL", access, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0,
                                nullptr));
}

// A job that ends every process in it when its last handle closes.
Handle NewJob() {
    Handle job(::CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (!job.Valid() ||
        !::SetInformationJobObject(job.Get(), JobObjectExtendedLimitInformation, &limits, sizeof limits)) {
        return Handle();
    }
    return job;
}

class AttributeList {
public:
    explicit AttributeList(const std::vector<HANDLE>& inherited) : inherited_(inherited) {
        SIZE_T size = 0;
        ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        buffer_.resize(size);
        list_ = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(buffer_.data());
        if (!::InitializeProcThreadAttributeList(list_, 1, 0, &size)) {
            list_ = nullptr;
            return;
        }
        if (!::UpdateProcThreadAttribute(list_, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherited_.data(),
                                         inherited_.size() * sizeof(HANDLE), nullptr, nullptr)) {
            ::DeleteProcThreadAttributeList(list_);
            list_ = nullptr;
        }
    }
    ~AttributeList() {
        if (list_ != nullptr) ::DeleteProcThreadAttributeList(list_);
    }
    AttributeList(const AttributeList&) = delete;
    AttributeList& operator=(const AttributeList&) = delete;

    LPPROC_THREAD_ATTRIBUTE_LIST Get() const { return list_; }

private:
    std::vector<HANDLE> inherited_;  // must outlive the list
    std::vector<char> buffer_;
    LPPROC_THREAD_ATTRIBUTE_LIST list_ = nullptr;
};

struct Child {
    Handle process;
    Handle job;
    Handle output;  // read end of standard output, when captured
};

// Starts `commandLine` as it stands, suspended until it is in its job.
bool Start(const std::wstring& commandLine, const std::wstring& directory, bool captureOutput, Child& child) {
    if (commandLine.empty() || commandLine.size() >= kMaxCommandLine) return false;
    // CreateProcessW may write into the line it is given.
    std::vector<wchar_t> line(commandLine.begin(), commandLine.end());
    line.push_back(L'\0');
    Handle job = NewJob();
    if (!job.Valid()) return false;

    const std::lock_guard<std::mutex> lock(InheritLock());
    Handle input = OpenNul(GENERIC_READ);
    Handle nul = OpenNul(GENERIC_WRITE);
    if (!input.Valid() || !nul.Valid()) return false;
    Handle readEnd;
    Handle writeEnd;
    if (captureOutput) {
        SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
        HANDLE read = nullptr;
        HANDLE write = nullptr;
        if (!::CreatePipe(&read, &write, &inherit, 0)) return false;
        readEnd.Reset(read);
        writeEnd.Reset(write);
        if (!::SetHandleInformation(readEnd.Get(), HANDLE_FLAG_INHERIT, 0)) return false;
    }
    std::vector<HANDLE> inherited = {input.Get(), nul.Get()};
    if (writeEnd.Valid()) inherited.push_back(writeEnd.Get());
    const AttributeList attributes(inherited);
    if (attributes.Get() == nullptr) return false;

    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = input.Get();
    startup.StartupInfo.hStdOutput = writeEnd.Valid() ? writeEnd.Get() : nul.Get();
    startup.StartupInfo.hStdError = nul.Get();
    startup.lpAttributeList = attributes.Get();
    PROCESS_INFORMATION info{};
    const DWORD flags = CREATE_NO_WINDOW | CREATE_SUSPENDED | EXTENDED_STARTUPINFO_PRESENT;
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, flags, nullptr,
                          directory.empty() ? nullptr : directory.c_str(), &startup.StartupInfo, &info)) {
        return false;
    }
    Handle process(info.hProcess);
    const Handle thread(info.hThread);
    // Outside its job the child could not be ended with its tree: it does
    // not run at all then.
    if (!::AssignProcessToJobObject(job.Get(), process.Get()) || ::ResumeThread(thread.Get()) == static_cast<DWORD>(-1)) {
        ::TerminateProcess(process.Get(), kEndedExitCode);
        ::WaitForSingleObject(process.Get(), kGraceMs);
        return false;
    }
    child.process = std::move(process);
    child.job = std::move(job);
    child.output = std::move(readEnd);
    return true;
}

struct Outcome {
    bool timedOut = false;
    DWORD exitCode = 0;
};

// Waits until the child ends, or until `limit` (0: none) passes and its whole
// job is ended.
Outcome Wait(const Child& child, milliseconds limit) {
    const DWORD timeout = limit.count() > 0 ? static_cast<DWORD>(std::min<milliseconds::rep>(limit.count(), INFINITE - 1))
                                            : INFINITE;
    Outcome outcome;
    if (::WaitForSingleObject(child.process.Get(), timeout) == WAIT_TIMEOUT) {
        ::TerminateJobObject(child.job.Get(), kEndedExitCode);
        ::WaitForSingleObject(child.process.Get(), kGraceMs);
        outcome.timedOut = true;
        return outcome;
    }
    if (!::GetExitCodeProcess(child.process.Get(), &outcome.exitCode)) outcome.exitCode = kEndedExitCode;
    return outcome;
}

// Standard output collected by a thread of its own, so that a child that
// fills the pipe never blocks on it while the caller waits for its end.
struct OutputReader {
    explicit OutputReader(std::size_t limit) : tail(limit) {}
    Handle pipe;
    std::mutex mutex;
    OutputTail tail;
};

DWORD WINAPI ReadOutput(void* parameter) {
    const std::unique_ptr<std::shared_ptr<OutputReader>> owned(static_cast<std::shared_ptr<OutputReader>*>(parameter));
    OutputReader& reader = **owned;
    try {
        char buffer[16384];
        DWORD got = 0;
        while (::ReadFile(reader.pipe.Get(), buffer, sizeof buffer, &got, nullptr) && got > 0) {
            const std::lock_guard<std::mutex> lock(reader.mutex);
            reader.tail.Append(buffer, got);
        }
    } catch (...) {
        // Out of memory for the output: what was read is kept.
    }
    return 0;
}

Handle StartReader(const std::shared_ptr<OutputReader>& reader) {
    auto* parameter = new std::shared_ptr<OutputReader>(reader);
    Handle thread(::CreateThread(nullptr, 0, ReadOutput, parameter, 0, nullptr));
    if (!thread.Valid()) delete parameter;
    return thread;
}

// Once the job is closed nothing holds the pipe's write end; should the read
// still not end, it is cancelled, and given up on rather than waited for.
void FinishReading(const Handle& thread, OutputReader& reader, ProcessResult& result) {
    if (::WaitForSingleObject(thread.Get(), kGraceMs) == WAIT_TIMEOUT) {
        ::CancelSynchronousIo(thread.Get());
        ::WaitForSingleObject(thread.Get(), kGraceMs);
    }
    const std::lock_guard<std::mutex> lock(reader.mutex);
    reader.tail.MoveInto(result);
}

}  // namespace

ProcessResult WindowsProcess::Spawn(const ProcessRequest& request) {
    try {
        const std::optional<std::wstring> line = JoinWindowsCommandLine(request.argv);
        Child child;
        if (!line || !Start(*line, request.workingDirectory, request.captureOutput, child)) return ProcessResult{};
        std::shared_ptr<OutputReader> reader;
        Handle thread;
        if (child.output.Valid()) {
            reader = std::make_shared<OutputReader>(request.maxOutputBytes);
            reader->pipe = std::move(child.output);
            thread = StartReader(reader);
            if (!thread.Valid()) return ProcessResult{};  // the job's close ends the child
        }
        const Outcome outcome = Wait(child, request.timeout);
        child.job.Reset();  // ends what the child left running, which releases the pipe
        ProcessResult result;
        result.started = true;
        result.timedOut = outcome.timedOut;
        result.exitCode = outcome.timedOut ? -1 : static_cast<int>(outcome.exitCode);
        if (reader) FinishReading(thread, *reader, result);
        return result;
    } catch (...) {
        return ProcessResult{};
    }
}

int WindowsProcess::LaunchCommandLine(const std::wstring& commandLine, const std::wstring& arguments, bool wait,
                                      void* /*hostContext*/, milliseconds ceiling) {
    try {
        const std::wstring line = WithArguments(commandLine, arguments);
        Child child;
        if (!Start(line, std::wstring(), false, child)) return 0;
        if (wait) {
            const Outcome outcome = Wait(child, ceiling);
            return !outcome.timedOut && outcome.exitCode == 0 ? 1 : 0;
        }
        // Nobody waits for the result, but the ceiling holds all the same: a
        // thread keeps the job until the child ends or the ceiling passes.
        auto held = std::make_shared<Child>(std::move(child));
        try {
            std::thread([held, ceiling]() noexcept { Wait(*held, ceiling); }).detach();
        } catch (...) {
            // No thread to be had: closing the job here would end the child.
            Wait(*held, ceiling);
        }
        return 1;
    } catch (...) {
        return 0;
    }
}

}  // namespace zep::platform

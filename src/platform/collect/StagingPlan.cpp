#include "platform/collect/StagingPlan.h"

#include <algorithm>

#include "platform/agent/CommonBase.h"
#include "platform/collect/LogScrubFile.h"
#include "platform/env/Beneath.h"

namespace zep::collect {
namespace {

using platform::Folder;
using platform::FsStatus;

// Plans of scans that never got packed go after this many newer ones.
constexpr std::size_t kMaxPlans = 16;

// Copies at most `limit` bytes, as the file was planned.
bool CopyAtMost(platform::InputFile& in, platform::OutputFile& out, std::uint64_t limit, FsStatus& status) {
    std::string chunk(256 * 1024, '\0');
    while (limit > 0) {
        std::size_t got = 0;
        const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), limit));
        if (!in.Read(chunk.data(), want, got, &status)) return false;
        if (got == 0) break;
        if (!out.Write(std::string_view(chunk.data(), got), &status)) return false;
        limit -= got;
    }
    return true;
}

bool MaterialiseFile(const StagingPlan& plan, Folder& destination, const PlannedFile& file, const wchar_t* label) {
    const std::vector<std::wstring> parent(file.path.begin(), file.path.end() - 1);
    FsStatus status;
    const auto from = OpenBelow(plan.source, parent, false, &status);
    auto in = from ? from->OpenFile(file.path.back(), &status) : nullptr;
    if (!in) {
        g_log.d(L"%s: %s/%s is gone: %s", label, plan.sourcePath, text::FromUtf8(ArchiveName(file.path)), status.message);
        return true;  // nothing left to copy
    }
    const std::shared_ptr<Folder> target(std::shared_ptr<Folder>(), &destination);
    const auto into = OpenBelow(target, parent, true, &status);
    auto out = into ? into->OpenForWriting(file.path.back(), Folder::Create::Truncate, &status) : nullptr;
    bool ok = out != nullptr;
    if (ok && file.scrub) {
        ScrubLimits limits;
        limits.maxInputBytes = file.size;
        const ScrubOutcome outcome = ScrubFile(*in, *out, limits);
        ok = outcome.ok;
        status = outcome.status;
    } else if (ok) {
        ok = CopyAtMost(*in, *out, file.size, status);
    }
    if (out) {
        out->SetModified(file.modifiedNs);
        ok = out->Close(ok ? &status : nullptr) && ok;
    }
    if (!ok) {
        g_log.e(L"%s: cannot copy %s into %s: %s", label, text::FromUtf8(ArchiveName(file.path)), plan.destination,
                status.message);
        if (into) into->Remove(file.path.back(), false);
    }
    return ok;
}

}  // namespace

std::optional<std::vector<std::wstring>> NamesBelow(const std::wstring& path, const std::wstring& base) {
    auto located = platform::LocateBelow(path, {base});
    if (!located) return std::nullopt;
    return std::move(located->below);
}

void StagingPlans::Put(std::shared_ptr<StagingPlan> plan) {
    std::lock_guard<std::mutex> lock(mutex_);
    plans_.erase(std::remove_if(plans_.begin(), plans_.end(),
                                [&](const auto& held) {
                                    const auto below = NamesBelow(held->destination, plan->destination);
                                    return below && below->empty();
                                }),
                 plans_.end());
    if (plans_.size() == kMaxPlans) {
        g_log.e(L"StagingPlans: the logs planned for %s were never packed", plans_.front()->destination);
        plans_.erase(plans_.begin());
    }
    plans_.push_back(std::move(plan));
}

std::vector<std::wstring> PlannedView::Path() const {
    std::vector<std::wstring> path(*above);
    path.insert(path.end(), file->path.begin() + static_cast<std::ptrdiff_t>(skip), file->path.end());
    return path;
}

std::vector<PlannedView> StagingPlans::FilesBelow(const std::wstring& folder, bool recursive) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<PlannedView> views;
    const auto none = std::make_shared<const std::vector<std::wstring>>();
    for (const auto& plan : plans_) {
        // The destination below the folder, or the folder below the destination.
        const auto destinationBelow = NamesBelow(plan->destination, folder);
        const auto folderBelow = destinationBelow ? std::nullopt : NamesBelow(folder, plan->destination);
        if (!destinationBelow && !folderBelow) continue;
        const auto above =
            destinationBelow ? std::make_shared<const std::vector<std::wstring>>(*destinationBelow) : none;
        const std::size_t skip = destinationBelow ? 0 : folderBelow->size();
        for (auto& file : plan->files) {
            if (file.dropped) continue;
            if (folderBelow && !(file.path.size() > skip &&
                                 std::equal(folderBelow->begin(), folderBelow->end(), file.path.begin()))) {
                continue;
            }
            if (!recursive && above->size() + file.path.size() - skip != 1) continue;
            views.push_back(PlannedView{plan, &file, above, skip});
        }
    }
    return views;
}

std::vector<std::shared_ptr<StagingPlan>> StagingPlans::TakeBelow(const std::wstring& folder) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::shared_ptr<StagingPlan>> taken;
    for (auto it = plans_.begin(); it != plans_.end();) {
        if (NamesBelow((*it)->destination, folder)) {
            taken.push_back(std::move(*it));
            it = plans_.erase(it);
        } else {
            ++it;
        }
    }
    return taken;
}

bool Materialise(const StagingPlan& plan, const wchar_t* label) {
    const std::shared_ptr<Folder> destination = FileSystem::openFolder(plan.destination, true);
    if (!destination) {
        g_log.e(L"%s: cannot open %s to copy the logs into", label, plan.destination);
        return false;
    }
    bool ok = true;
    for (const auto& folder : plan.folders) {
        FsStatus status;
        if (!OpenBelow(destination, folder.path, true, &status)) {
            g_log.e(L"%s: cannot create %s in %s: %s", label, text::FromUtf8(ArchiveName(folder.path)),
                    plan.destination, status.message);
            ok = false;
        }
    }
    std::size_t copied = 0;
    for (const auto& file : plan.files) {
        if (file.dropped) continue;
        if (MaterialiseFile(plan, *destination, file, label)) {
            ++copied;
        } else {
            ok = false;
        }
    }
    g_log.d(L"%s: %d files copied into %s, as the archive was not written", label, static_cast<int>(copied),
            plan.destination);
    return ok;
}

}  // namespace zep::collect

#include "platform/collect/NativeCollection.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <map>
#include <utility>

#include "platform/agent/CommonBase.h"
#include "platform/collect/LogScrubFile.h"
#include "platform/collect/StagingPlan.h"
#include "platform/env/Env.h"
#include "platform/util/MemoryRegistry.h"
#include "platform/util/Strings.h"

namespace zep::collect {
namespace {

using platform::Folder;
using platform::FsError;
using platform::FsStatus;

constexpr const wchar_t* kCopyLogs = L"NativeCollection::CopyLogs";
constexpr const wchar_t* kRemoveArchives = L"NativeCollection::RemoveArchives";
constexpr const wchar_t* kLimitLogSize = L"NativeCollection::LimitLogSize";
constexpr const wchar_t* kScrubLogs = L"NativeCollection::ScrubLogs";
constexpr const wchar_t* kExportRegistry = L"NativeCollection::ExportRegistry";
constexpr const wchar_t* kCompressFolder = L"NativeCollection::CompressFolder";
constexpr const wchar_t* kCompressPluginFolder = L"NativeCollection::CompressPluginFolder";
constexpr const wchar_t* kRunPackageScript = L"NativeCollection::RunPackageScript";

template <typename Body>
int Guarded(const wchar_t* label, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::exception& e) {
        g_log.e(L"%s: %s", label, std::string(e.what()));
    } catch (...) {
        g_log.e(L"%s: unexpected failure", label);
    }
    return 0;
}

std::shared_ptr<Folder> OpenRoot(const std::wstring& path, bool create, const wchar_t* label) {
    std::shared_ptr<Folder> folder = FileSystem::openFolder(path, create);
    if (!folder) g_log.e(L"%s: cannot open %s", label, path);
    return folder;
}

std::wstring Relative(const std::vector<std::wstring>& path) { return text::FromUtf8(ArchiveName(path)); }

// Deletes the file `path` below `root`; one that is gone already counts as deleted.
bool RemoveBelow(const std::shared_ptr<Folder>& root, const std::vector<std::wstring>& path,
                 const std::wstring& rootText, const wchar_t* label) {
    FsStatus status;
    const auto parent = OpenBelow(root, std::vector<std::wstring>(path.begin(), path.end() - 1), false, &status);
    if ((parent && parent->Remove(path.back(), false, &status)) || status.error == FsError::NotFound) return true;
    g_log.e(L"%s: cannot delete %s/%s: %s", label, rootText, Relative(path), status.message);
    return false;
}

std::wstring UniqueSuffix() {
    static std::atomic<unsigned> counter{0};
    const auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
    return std::to_wstring(static_cast<unsigned long long>(ticks)) + L"-" + std::to_wstring(counter.fetch_add(1));
}

// Creates a new file beside `name` that no one else uses.
std::unique_ptr<platform::OutputFile> CreateTemporary(Folder& folder, const std::wstring& name, std::wstring& temporary,
                                                      FsStatus& status) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        temporary = L"." + name + L"." + UniqueSuffix() + L".part";
        if (auto out = folder.OpenForWriting(temporary, Folder::Create::New, &status)) return out;
        if (status.error != FsError::Exists) break;
    }
    return nullptr;
}

// Scrubs a file in place: into a temporary file beside it, renamed over it
// only when an address was replaced. The file keeps its last write time.
bool ScrubInPlace(Folder& folder, const platform::EntryInfo& entry, const wchar_t* label) {
    FsStatus status;
    auto in = folder.OpenFile(entry.name, &status);
    if (!in) {
        g_log.d(L"%s: skipping %s/%s: %s", label, folder.Path(), entry.name, status.message);
        return true;  // not a file to scrub (any more)
    }
    std::wstring temporary;
    auto out = CreateTemporary(folder, entry.name, temporary, status);
    if (!out) {
        g_log.e(L"%s: cannot create a temporary file in %s: %s", label, folder.Path(), status.message);
        return false;
    }
    const ScrubOutcome outcome = ScrubFile(*in, *out);
    out->SetModified(in->Info().modifiedNs);
    const bool closed = out->Close(&status);
    if (!outcome.ok || !closed || !outcome.changed) {
        folder.Remove(temporary, false);
        if (outcome.ok && closed) return true;
        g_log.e(L"%s: cannot scrub %s/%s: %s", label, folder.Path(), entry.name,
                outcome.ok ? status.message : outcome.status.message);
        return false;
    }
    if (!folder.Rename(temporary, entry.name, true, &status)) {
        g_log.e(L"%s: cannot replace %s/%s: %s", label, folder.Path(), entry.name, status.message);
        folder.Remove(temporary, false);
        return false;
    }
    return true;
}

// ---- what an archive holds ----

using SharedPath = std::shared_ptr<const std::vector<std::wstring>>;

SharedPath ShareOf(std::vector<std::wstring> path) {
    return std::make_shared<const std::vector<std::wstring>>(std::move(path));
}

// Sorts by name, stably, with a merge of the sorted runs the entries come
// in: files are added in the order of a walk (a few runs, where a name like
// "a.log" sorts before the folder "a" it follows), so this takes a pass or
// two instead of a full sort.
void SortByName(std::vector<PackEntry>& files) {
    const auto less = [](const PackEntry& a, const PackEntry& b) { return a.name < b.name; };
    std::vector<std::size_t> bounds{0};  // where each run starts, and the end
    for (std::size_t i = 1; i < files.size(); ++i) {
        if (less(files[i], files[i - 1])) bounds.push_back(i);
    }
    bounds.push_back(files.size());
    const auto at = [&files](std::size_t i) { return files.begin() + static_cast<std::ptrdiff_t>(i); };
    while (bounds.size() > 2) {
        std::vector<std::size_t> merged{0};
        for (std::size_t i = 2; i < bounds.size(); i += 2) {
            std::inplace_merge(at(bounds[i - 2]), at(bounds[i - 1]), at(bounds[i]), less);
            merged.push_back(bounds[i]);
        }
        if (bounds.size() % 2 == 0) merged.push_back(bounds.back());  // an odd run out waits for the next round
        bounds = std::move(merged);
    }
}

struct Entries {
    std::map<std::string, PackEntry> folders;  // by archive name: parents before children
    std::vector<PackEntry> files;              // as added; sorted by name and made unique by InOrder

    void AddFolder(const std::vector<std::wstring>& path, std::int64_t modifiedNs) {
        std::string name = ArchiveName(path, true);
        folders[name] = PackEntry{name, modifiedNs, std::nullopt};
    }
    // A later file of the same name replaces an earlier one.
    void AddFile(std::string name, std::int64_t modifiedNs, PackSource source) {
        files.push_back(PackEntry{std::move(name), modifiedNs, std::move(source)});
    }
    void AddListing(const std::shared_ptr<Folder>& root, const Listing& listing,
                    const std::vector<std::wstring>& prefix = {}) {
        for (const auto& folder : listing.folders) AddFolder(Join(prefix, folder.path), folder.modifiedNs);
        for (const auto& file : listing.files) {
            const auto path = Join(prefix, file.path);
            AddFile(ArchiveName(path), file.modifiedNs, PackSource{root, ShareOf(path), file.size, false});
        }
    }
    std::vector<PackEntry> InOrder() {
        std::vector<PackEntry> all;
        all.reserve(folders.size() + files.size());
        for (auto& item : folders) all.push_back(std::move(item.second));
        SortByName(files);
        for (std::size_t i = 0; i < files.size(); ++i) {
            if (i + 1 < files.size() && files[i + 1].name == files[i].name) continue;  // replaced
            all.push_back(std::move(files[i]));
        }
        return all;
    }

    static std::vector<std::wstring> Join(const std::vector<std::wstring>& a, const std::vector<std::wstring>& b) {
        std::vector<std::wstring> path(a);
        path.insert(path.end(), b.begin(), b.end());
        return path;
    }
};

// The staging folder's own files, and the planned logs below it (which win
// over a staged file of the same name, as a copy would have replaced it).
std::vector<PackEntry> StagingEntries(const std::shared_ptr<Folder>& root, const std::wstring& sourceDir,
                                      const std::vector<std::shared_ptr<StagingPlan>>& plans) {
    Entries entries;
    entries.AddListing(root, ListTree(*root, true));
    for (const auto& plan : plans) {
        const auto prefix = NamesBelow(plan->destination, sourceDir);
        if (!prefix) continue;
        for (std::size_t i = 1; i <= prefix->size(); ++i) {
            const std::vector<std::wstring> folder(prefix->begin(), prefix->begin() + static_cast<std::ptrdiff_t>(i));
            if (entries.folders.count(ArchiveName(folder, true)) == 0) entries.AddFolder(folder, 0);
        }
        for (const auto& folder : plan->folders) entries.AddFolder(Entries::Join(*prefix, folder.path), folder.modifiedNs);
        const std::string above = prefix->empty() ? std::string() : ArchiveName(*prefix) + '/';
        for (const auto& file : plan->files) {
            if (file.dropped) continue;
            entries.AddFile(above + ArchiveName(file.path), file.modifiedNs,
                            // The path stays the plan's own; the plan lives as long as it is used.
                            PackSource{plan->source, SharedPath(plan, &file.path), file.size, file.scrub});
        }
    }
    return entries.InOrder();
}

bool SameName(std::wstring_view a, std::wstring_view b) { return text::EqualsIgnoreCase(a, b); }

// What a plug-in's zip holds: the top-level entries of its folder but the
// history, "latest", the delete preference and archives (names compared
// without regard to case, as on Windows), each folder with its whole tree,
// and latest/scan-result.json as "scan-result.json". That scan result is the
// agent's own, so it wins over a top-level file of the same name.
std::vector<PackEntry> PluginEntries(const std::shared_ptr<Folder>& root) {
    Entries entries;
    const auto packed = [](const std::wstring& name) {
        return !SameName(name, L"scan-history.log") && !SameName(name, L"latest") &&
               !SameName(name, L"plugin-upload-meta.json") && !IsArchiveName(name);
    };
    const Listing top = ListTree(*root, false);
    for (const auto& folder : top.folders) {
        if (!packed(folder.path.back())) continue;
        entries.AddFolder(folder.path, folder.modifiedNs);
        if (const auto below = OpenBelow(root, folder.path, false)) entries.AddListing(root, ListTree(*below, true), folder.path);
    }
    for (const auto& file : top.files) {
        if (packed(file.path.back())) entries.AddFile(ArchiveName(file.path), file.modifiedNs,
                                                      PackSource{root, ShareOf(file.path), file.size, false});
    }
    if (const auto latest = root->OpenFolder(L"latest")) {
        const auto result = latest->Stat(L"scan-result.json");
        if (result && result->kind == platform::EntryKind::File) {
            entries.AddFile("scan-result.json", result->modifiedNs,
                            PackSource{root, ShareOf({L"latest", L"scan-result.json"}), result->size, false});
        }
    }
    return entries.InOrder();
}

// Packs `entries` into `zipPath`: written under a temporary name beside it
// and renamed into place, never over a file that appeared meanwhile unless
// `replace`. The archive's hash goes to the upload with it.
int WriteArchive(const std::vector<PackEntry>& entries, const std::wstring& zipPath, bool replace,
                 const PackOptions& options, const wchar_t* label) {
    const std::wstring name = FileSystem::getFileName(zipPath);
    const std::shared_ptr<Folder> folder = OpenRoot(FileSystem::getDirectoryName(zipPath), false, label);
    if (!folder) return 0;
    if (!replace && folder->Stat(name)) {
        g_log.e(L"%s: %s exists already", label, zipPath);
        return 0;
    }
    FsStatus status;
    std::wstring temporary;
    auto out = CreateTemporary(*folder, name, temporary, status);
    if (!out) {
        g_log.e(L"%s: cannot create an archive in %s: %s", label, folder->Path(), status.message);
        return 0;
    }
    const PackOutcome packed = PackArchive(entries, *out, label, options);
    const bool closed = out->Close(&status);
    if (!packed.written || !closed) {
        if (packed.written) g_log.e(L"%s: cannot write %s: %s", label, zipPath, status.message);
        folder->Remove(temporary, false);
        return 0;
    }
    // Taken before the rename: the file keeps its identity under its new name.
    const auto written = folder->Stat(temporary);
    if (!folder->Rename(temporary, name, replace, &status)) {
        g_log.e(L"%s: cannot name the archive %s: %s", label, zipPath, status.message);
        folder->Remove(temporary, false);
        return 0;
    }
    if (written && written->size == packed.bytes) utility::RememberFileHash(*written, text::FromUtf8(packed.sha256));
    g_log.d(L"%s: %s holds %d files (%llu bytes)%s", label, zipPath, static_cast<int>(packed.files),
            static_cast<unsigned long long>(packed.bytes),
            packed.left > 0 ? L", " + std::to_wstring(packed.left) + L" left out" : std::wstring());
    return 1;
}

}  // namespace

struct NativeCollection::State {
    StagingPlans plans;
};

NativeCollection::NativeCollection(PackageScriptWay scripts, PackOptions options)
    : state_(std::make_unique<State>()), scripts_(std::move(scripts)), options_(options) {}

NativeCollection::~NativeCollection() = default;

int NativeCollection::CopyLogs(const std::wstring& source, const std::wstring& destination, std::uint64_t keepBytes) {
    return Guarded(kCopyLogs, [&] {
        const std::shared_ptr<Folder> from = OpenRoot(source, false, kCopyLogs);
        if (!from || !OpenRoot(destination, true, kCopyLogs)) return 0;
        // Select first, so that what is not kept is never read.
        Listing listing = ListTree(*from, true);
        auto plan = std::make_shared<StagingPlan>();
        plan->destination = destination;
        plan->sourcePath = source;
        plan->source = from;
        plan->folders = std::move(listing.folders);
        auto& files = listing.files;
        files.erase(std::remove_if(files.begin(), files.end(),
                                   [](const ListedEntry& file) { return IsArchiveName(file.path.back()); }),
                    files.end());
        const std::vector<bool> kept = NewestWithin(files, keepBytes);
        for (std::size_t i = 0; i < files.size(); ++i) {
            if (kept[i]) plan->files.push_back(PlannedFile{std::move(files[i])});
        }
        g_log.d(L"%s: the %d newest files of %s go into the archive from where they are", kCopyLogs,
                static_cast<int>(plan->files.size()), source);
        state_->plans.Put(std::move(plan));
        return 1;
    });
}

int NativeCollection::RemoveArchives(const std::wstring& folder) {
    return Guarded(kRemoveArchives, [&] {
        const std::shared_ptr<Folder> root = OpenRoot(folder, false, kRemoveArchives);
        if (!root) return 0;
        bool ok = true;
        for (const auto& file : ListTree(*root, true).files) {
            if (IsArchiveName(file.path.back())) ok = RemoveBelow(root, file.path, folder, kRemoveArchives) && ok;
        }
        for (const auto& view : state_->plans.FilesBelow(folder, true)) {
            if (IsArchiveName(view.file->path.back())) view.file->dropped = true;
        }
        return ok ? 1 : 0;
    });
}

int NativeCollection::LimitLogSize(const std::wstring& folder, std::uint64_t limitBytes) {
    return Guarded(kLimitLogSize, [&] {
        const std::shared_ptr<Folder> root = OpenRoot(folder, false, kLimitLogSize);
        if (!root) return 0;
        struct Candidate : ListedEntry {
            PlannedFile* planned = nullptr;
        };
        std::vector<Candidate> files;
        for (auto& file : ListTree(*root, true).files) files.push_back(Candidate{std::move(file), nullptr});
        const auto planned = state_->plans.FilesBelow(folder, true);
        // The usual case, as the copy kept no more: everything fits, nothing goes.
        std::uint64_t total = 0;
        const auto add = [&total](std::uint64_t size) { total = size > UINT64_MAX - total ? UINT64_MAX : total + size; };
        for (const auto& file : files) add(file.size);
        for (const auto& view : planned) add(view.file->size);
        if (total <= limitBytes) return 1;
        for (const auto& view : planned) {
            files.push_back(Candidate{ListedEntry{view.Path(), view.file->size, view.file->modifiedNs}, view.file});
        }
        bool ok = true;
        const std::vector<bool> kept = NewestWithin(files, limitBytes);
        for (std::size_t i = 0; i < files.size(); ++i) {
            if (kept[i]) continue;
            if (files[i].planned != nullptr) {
                files[i].planned->dropped = true;
            } else {
                ok = RemoveBelow(root, files[i].path, folder, kLimitLogSize) && ok;
            }
        }
        return ok ? 1 : 0;
    });
}

int NativeCollection::ScrubLogs(const std::wstring& folder) {
    return Guarded(kScrubLogs, [&] {
        const std::shared_ptr<Folder> root = OpenRoot(folder, false, kScrubLogs);
        if (!root) return 0;
        std::vector<platform::EntryInfo> entries;
        FsStatus status;
        if (!root->List(entries, &status)) {
            g_log.e(L"%s: cannot list %s: %s", kScrubLogs, folder, status.message);
            return 0;
        }
        bool ok = true;
        for (const auto& entry : entries) {
            if (entry.kind == platform::EntryKind::File) ok = ScrubInPlace(*root, entry, kScrubLogs) && ok;
        }
        for (const auto& view : state_->plans.FilesBelow(folder, false)) view.file->scrub = true;
        return ok ? 1 : 0;
    });
}

int NativeCollection::ExportRegistry(const std::wstring& key, const std::wstring& outputFile) {
    return Guarded(kExportRegistry, [&] {
        const auto env = platform::CurrentEnv();
        const auto keys = env && env->registry ? env->registry->Snapshot(platform::Hive::LocalMachine, key)
                                                : std::vector<platform::RegistryKeyData>{};
        if (keys.empty()) {
            g_log.e(L"%s: no key HKEY_LOCAL_MACHINE\\%s", kExportRegistry, key);
            return 0;
        }
        if (!FileSystem::writeFile(outputFile,
                                   platform::EncodeUtf16LeWithBom(platform::RenderRegText(platform::Hive::LocalMachine, keys)))) {
            g_log.e(L"%s: cannot write %s", kExportRegistry, outputFile);
            return 0;
        }
        return 1;
    });
}

int NativeCollection::CompressFolder(const std::wstring& sourceDir, const std::wstring& zipPath) {
    return Guarded(kCompressFolder, [&] {
        // The plans are taken whatever happens: on failure their files are
        // copied in, so the staging folder holds what it would have held.
        const auto plans = state_->plans.TakeBelow(sourceDir);
        const auto fallBack = [&] {
            for (const auto& plan : plans) Materialise(*plan, kCompressFolder);
            return 0;
        };
        const std::shared_ptr<Folder> root = OpenRoot(sourceDir, false, kCompressFolder);
        if (!root) return fallBack();
        const std::vector<PackEntry> entries = StagingEntries(root, sourceDir, plans);
        if (entries.empty()) {
            // Compress-Archive refuses an empty folder too.
            g_log.e(L"%s: nothing to pack in %s", kCompressFolder, sourceDir);
            return fallBack();
        }
        return WriteArchive(entries, zipPath, false, options_, kCompressFolder) != 0 ? 1 : fallBack();
    });
}

int NativeCollection::CompressPluginFolder(const std::wstring& diagFolder, const std::wstring& zipPath) {
    return Guarded(kCompressPluginFolder, [&] {
        const std::shared_ptr<Folder> root = OpenRoot(diagFolder, false, kCompressPluginFolder);
        if (!root) return 0;
        const std::vector<PackEntry> entries = PluginEntries(root);
        if (entries.empty()) {
            g_log.e(L"%s: nothing to pack in %s", kCompressPluginFolder, diagFolder);
            return 0;
        }
        // An earlier archive of the same name is replaced, as -Force does.
        return WriteArchive(entries, zipPath, true, options_, kCompressPluginFolder);
    });
}

std::wstring NativeCollection::PackageScriptName() { return scripts_.scriptName; }

int NativeCollection::RunPackageScript(const std::wstring& script, const std::wstring& outputFolder) {
    return Guarded(kRunPackageScript, [&] { return scripts_.run ? scripts_.run(script, outputFolder) : 0; });
}

}  // namespace zep::collect

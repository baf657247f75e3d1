#include "platform/posix/NativeCollection.h"

#include "platform/agent/CommonBase.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/env/Env.h"
#include "platform/agent/Log.h"
#include "platform/util/MemoryRegistry.h"
#include "platform/util/Paths.h"
#include "platform/posix/Fd.h"
#include "platform/posix/LogScrubFile.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;

constexpr const wchar_t* kCopyLogs = L"NativeCollection::CopyLogs";
constexpr const wchar_t* kRemoveArchives = L"NativeCollection::RemoveArchives";
constexpr const wchar_t* kLimitLogSize = L"NativeCollection::LimitLogSize";
constexpr const wchar_t* kScrubLogs = L"NativeCollection::ScrubLogs";
constexpr const wchar_t* kExportRegistry = L"NativeCollection::ExportRegistry";
constexpr const wchar_t* kCompressFolder = L"NativeCollection::CompressFolder";
constexpr const wchar_t* kCompressPluginFolder = L"NativeCollection::CompressPluginFolder";
constexpr const wchar_t* kRunPackageScript = L"NativeCollection::RunPackageScript";

// Opening never waits for the other end of a FIFO that took a file's place
// after the listing; what was opened is then checked with fstat.
constexpr int kReadFlags = O_RDONLY | O_NONBLOCK;
constexpr int kDirFlags = O_RDONLY | O_DIRECTORY;

std::string ErrorText(int error) { return std::generic_category().message(error); }


struct DirCloser {
    void operator()(DIR* dir) const noexcept { ::closedir(dir); }
};

std::string ParentOf(const std::string& rel) {
    const auto slash = rel.rfind('/');
    return slash == std::string::npos ? std::string() : rel.substr(0, slash);
}

std::string NameOf(const std::string& rel) {
    const auto slash = rel.rfind('/');
    return slash == std::string::npos ? rel : rel.substr(slash + 1);
}

// Opens `rel` ('/'-separated, empty for the root itself) below the open
// folder `root`. No component is followed when it is a link, so a folder
// swapped for a link after it was listed cannot lead outside `root`.
Fd OpenBeneath(int root, const std::string& rel, int flags, int& error) {
    error = 0;
    if (rel.empty()) {
        Fd self(::openat(root, ".", flags | O_CLOEXEC));
        if (!self.Valid()) error = errno;
        return self;
    }
    Fd held;
    int current = root;
    std::size_t start = 0;
    for (;;) {
        const std::size_t slash = rel.find('/', start);
        const std::string part = rel.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (slash == std::string::npos) {
            Fd last(::openat(current, part.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
            if (!last.Valid()) error = errno;
            return last;
        }
        Fd next(::openat(current, part.c_str(), kDirFlags | O_NOFOLLOW | O_CLOEXEC));
        if (!next.Valid()) {
            error = errno;
            return Fd();
        }
        held = std::move(next);
        current = held.Get();
        start = slash + 1;
    }
}

// The folder a caller names is opened as named (it may be reached through a
// link); only what lies below it is held to the no-link rule.
Fd OpenRoot(const std::wstring& folder, int& error) {
    Fd root(::open(path::ToFs(folder).c_str(), kDirFlags | O_CLOEXEC));
    error = root.Valid() ? 0 : errno;
    return root;
}

struct Entry {
    std::string rel;  // '/'-separated, relative to the walked folder
    std::string archiveName;  // its name inside an archive when that is not `rel`
    std::uint64_t size = 0;
    timespec mtime{};
    mode_t mode = 0;
};

struct Listing {
    std::vector<Entry> dirs;   // parents before children
    std::vector<Entry> files;  // regular files only
};

bool Newer(const timespec& a, const timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

// Lists the folders and regular files below `root` (recursive) or directly in
// it; with `start`, below or directly in that folder of `root` instead. Links,
// FIFOs, sockets and devices are left out; a folder that cannot be read is
// logged and left out with everything below it.
Listing List(int root, bool recursive, const std::wstring& rootText, const wchar_t* label,
             const std::string& start = std::string()) {
    Listing listing;
    std::vector<std::string> pending{start};
    while (!pending.empty()) {
        const std::string folder = std::move(pending.back());
        pending.pop_back();
        int error = 0;
        Fd fd = OpenBeneath(root, folder, kDirFlags, error);
        std::unique_ptr<DIR, DirCloser> dir(fd.Valid() ? ::fdopendir(fd.Get()) : nullptr);
        if (!dir) {
            if (error == 0) error = errno;
            g_log.d(L"%s: cannot list %s/%s: %s", label, rootText, folder, ErrorText(error));
            continue;
        }
        fd.Release();  // owned by `dir` now
        for (;;) {
            errno = 0;
            const dirent* item = ::readdir(dir.get());
            if (item == nullptr) {
                if (errno != 0) g_log.d(L"%s: listing of %s/%s ended early: %s", label, rootText, folder,
                                        ErrorText(errno));
                break;
            }
            const std::string_view name(item->d_name);
            if (name == "." || name == "..") continue;
            Entry entry;
            entry.rel = folder.empty() ? std::string(name) : folder + "/" + std::string(name);
            struct stat st {};
            if (::fstatat(::dirfd(dir.get()), item->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                g_log.d(L"%s: skipping %s/%s: %s", label, rootText, entry.rel, ErrorText(errno));
                continue;
            }
            entry.size = static_cast<std::uint64_t>(st.st_size);
            entry.mtime = st.st_mtim;
            entry.mode = st.st_mode;
            if (S_ISDIR(st.st_mode)) {
                if (recursive) pending.push_back(entry.rel);
                listing.dirs.push_back(std::move(entry));
            } else if (S_ISREG(st.st_mode)) {
                listing.files.push_back(std::move(entry));
            } else {
                g_log.d(L"%s: skipping %s/%s: a link or special file", label, rootText, entry.rel);
            }
        }
    }
    const auto byPath = [](const Entry& a, const Entry& b) { return a.rel < b.rel; };
    std::sort(listing.dirs.begin(), listing.dirs.end(), byPath);
    std::sort(listing.files.begin(), listing.files.end(), byPath);
    return listing;
}

// ASCII letters only, as the names compared with are ASCII.
bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i];
        char y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

bool IsArchiveName(const std::string& rel) {
    constexpr std::string_view kZip = ".zip";
    if (rel.size() < kZip.size()) return false;
    for (std::size_t i = 0; i < kZip.size(); ++i) {
        char c = rel[rel.size() - kZip.size() + i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c != kZip[i]) return false;
    }
    return true;
}

// Sorts newest first (ties by path) and returns how many of the newest files
// fit: the running total includes the file that crosses the limit, so that
// file and every older one are out.
std::size_t KeepNewest(std::vector<Entry>& files, std::uint64_t limitBytes) {
    std::stable_sort(files.begin(), files.end(),
                     [](const Entry& a, const Entry& b) { return Newer(a.mtime, b.mtime); });
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < files.size(); ++i) {
        // total <= limitBytes here, so this is total + size > limitBytes without overflow.
        if (files[i].size > limitBytes - total) return i;
        total += files[i].size;
    }
    return files.size();
}

// Removes the file `rel` below `root`; a file that is already gone counts as removed.
bool RemoveBeneath(int root, const std::string& rel, const std::wstring& rootText, const wchar_t* label) {
    int error = 0;
    Fd parent = OpenBeneath(root, ParentOf(rel), kDirFlags, error);
    if (parent.Valid() && ::unlinkat(parent.Get(), NameOf(rel).c_str(), 0) == 0) return true;
    if (parent.Valid()) error = errno;
    if (error == ENOENT) return true;
    g_log.e(L"%s: cannot delete %s/%s: %s", label, rootText, rel, ErrorText(error));
    return false;
}

// Opens a file for reading and makes sure it is a regular file.
Fd OpenRegular(int root, const std::string& rel, struct stat& st, int& error) {
    Fd fd = OpenBeneath(root, rel, kReadFlags, error);
    if (!fd.Valid()) return fd;
    if (::fstat(fd.Get(), &st) != 0) {
        error = errno;
        return Fd();
    }
    if (!S_ISREG(st.st_mode)) {
        error = EINVAL;
        return Fd();
    }
    return fd;
}

bool WriteAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

mode_t FileMode(mode_t source) { return static_cast<mode_t>((source & 0777) | S_IRUSR | S_IWUSR); }

std::string UniqueSuffix() {
    static std::atomic<unsigned> counter{0};
    return std::to_string(::getpid()) + "-" + std::to_string(counter.fetch_add(1));
}

enum class CopyOutcome { Copied, Skipped, Failed };

// Copies at most the listed size of one file (a log being written to is
// taken as it was listed) and keeps its last write time.
CopyOutcome CopyOneFile(int sourceRoot, int destinationRoot, const Entry& entry, const std::wstring& sourceText,
                     const std::wstring& destinationText, std::vector<char>& buffer) {
    struct stat st {};
    int error = 0;
    Fd in = OpenRegular(sourceRoot, entry.rel, st, error);
    if (!in.Valid()) {
        g_log.d(L"%s: skipping %s/%s: %s", kCopyLogs, sourceText, entry.rel, ErrorText(error));
        return CopyOutcome::Skipped;
    }
    Fd parent = OpenBeneath(destinationRoot, ParentOf(entry.rel), kDirFlags, error);
    const std::string name = NameOf(entry.rel);
    Fd out(parent.Valid() ? ::openat(parent.Get(), name.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                                     FileMode(st.st_mode))
                          : -1);
    struct stat outStat {};
    if (!out.Valid() || ::fstat(out.Get(), &outStat) != 0 || !S_ISREG(outStat.st_mode)) {
        if (error == 0) error = out.Valid() ? EINVAL : errno;
        g_log.e(L"%s: cannot create %s/%s: %s", kCopyLogs, destinationText, entry.rel, ErrorText(error));
        return CopyOutcome::Failed;
    }
    std::uint64_t remaining = entry.size;
    while (remaining > 0) {
        const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(remaining, buffer.size()));
        const ssize_t got = ::read(in.Get(), buffer.data(), want);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            g_log.d(L"%s: skipping %s/%s: %s", kCopyLogs, sourceText, entry.rel, ErrorText(errno));
            ::unlinkat(parent.Get(), name.c_str(), 0);
            return CopyOutcome::Skipped;
        }
        if (got == 0) break;  // shrank since it was listed: what is there is copied
        if (!WriteAll(out.Get(), buffer.data(), static_cast<std::size_t>(got))) {
            g_log.e(L"%s: cannot write %s/%s: %s", kCopyLogs, destinationText, entry.rel, ErrorText(errno));
            ::unlinkat(parent.Get(), name.c_str(), 0);
            return CopyOutcome::Failed;
        }
        remaining -= static_cast<std::uint64_t>(got);
    }
    const timespec times[2] = {{0, UTIME_OMIT}, st.st_mtim};
    if (::futimens(out.Get(), times) != 0) {
        g_log.d(L"%s: cannot keep the time of %s/%s: %s", kCopyLogs, destinationText, entry.rel, ErrorText(errno));
    }
    return CopyOutcome::Copied;
}

// Scrubs one file directly in `folder` into a temporary file beside it and
// renames that over the original, only when an address was replaced.
bool ScrubOne(int folder, const Entry& entry, const std::wstring& folderText) {
    struct stat st {};
    int error = 0;
    Fd in = OpenRegular(folder, entry.rel, st, error);
    if (!in.Valid()) {
        g_log.d(L"%s: skipping %s/%s: %s", kScrubLogs, folderText, entry.rel, ErrorText(error));
        return true;  // not a file to scrub (any more)
    }
    const std::string temporary = ".zep-scrub-" + UniqueSuffix() + ".tmp";
    Fd out(::openat(folder, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                    FileMode(st.st_mode)));
    if (!out.Valid()) {
        g_log.e(L"%s: cannot create a temporary file in %s: %s", kScrubLogs, folderText, ErrorText(errno));
        return false;
    }
    const ScrubOutcome outcome = ScrubFile(in.Get(), out.Get());
    if (!outcome.ok || !outcome.changed) {
        ::unlinkat(folder, temporary.c_str(), 0);
        if (outcome.ok) return true;
        g_log.e(L"%s: cannot scrub %s/%s: %s", kScrubLogs, folderText, entry.rel, ErrorText(outcome.error));
        return false;
    }
    // Only the addresses changed: the file keeps its time and permissions.
    const timespec times[2] = {{0, UTIME_OMIT}, st.st_mtim};
    ::futimens(out.Get(), times);
    ::fchmod(out.Get(), st.st_mode & 07777);
    out.Reset();
    if (::renameat(folder, temporary.c_str(), folder, entry.rel.c_str()) != 0) {
        g_log.e(L"%s: cannot replace %s/%s: %s", kScrubLogs, folderText, entry.rel, ErrorText(errno));
        ::unlinkat(folder, temporary.c_str(), 0);
        return false;
    }
    return true;
}

bool WriteNewFile(const std::wstring& file, const std::string& bytes, int& error) {
    Fd out(::open(path::ToFs(file).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                  0666));
    struct stat st {};
    if (!out.Valid() || ::fstat(out.Get(), &st) != 0) {
        error = errno;
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        error = EINVAL;
        return false;
    }
    if (!WriteAll(out.Get(), bytes.data(), bytes.size())) {
        error = errno;
        return false;
    }
    return true;
}

// ---- zip ---------------------------------------------------------------

// One file of the archive, read only while libzip writes it (zip_close), so
// that any number of files can be packed with one descriptor open at a time.
struct ArchiveFile {
    ArchiveFile(int rootFd, const Entry& fileEntry) : root(rootFd), entry(fileEntry) { zip_error_init(&error); }
    ~ArchiveFile() { zip_error_fini(&error); }
    ArchiveFile(const ArchiveFile&) = delete;
    ArchiveFile& operator=(const ArchiveFile&) = delete;

    int root;
    Entry entry;
    Fd fd;
    std::uint64_t remaining = 0;
    zip_error_t error;
    bool unreadable = false;  // could not be opened: left out when the archive is built again
    bool changed = false;     // shorter than listed: listed again when the archive is built again
};

zip_int64_t Fail(ArchiveFile& file, int zipError, int systemError) {
    zip_error_set(&file.error, zipError, systemError);
    return -1;
}

zip_int64_t HandleArchiveFile(ArchiveFile& file, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    switch (command) {
        case ZIP_SOURCE_OPEN: {
            struct stat st {};
            int error = 0;
            file.fd = OpenRegular(file.root, file.entry.rel, st, error);
            if (!file.fd.Valid()) {
                file.unreadable = true;
                return Fail(file, ZIP_ER_OPEN, error);
            }
            file.remaining = file.entry.size;
            return 0;
        }
        case ZIP_SOURCE_READ: {
            const auto want = static_cast<std::size_t>(std::min<zip_uint64_t>(length, file.remaining));
            if (want == 0) return 0;
            for (;;) {
                const ssize_t got = ::read(file.fd.Get(), data, want);
                if (got < 0 && errno == EINTR) continue;
                if (got < 0) {
                    file.unreadable = true;
                    return Fail(file, ZIP_ER_READ, errno);
                }
                if (got == 0) {
                    // The size was promised in the local header already.
                    file.changed = true;
                    return Fail(file, ZIP_ER_READ, 0);
                }
                file.remaining -= static_cast<std::uint64_t>(got);
                return got;
            }
        }
        case ZIP_SOURCE_CLOSE:
            file.fd.Reset();
            return 0;
        case ZIP_SOURCE_STAT: {
            if (length < sizeof(zip_stat_t)) return Fail(file, ZIP_ER_INVAL, 0);
            auto* st = static_cast<zip_stat_t*>(data);
            zip_stat_init(st);
            st->valid = ZIP_STAT_SIZE | ZIP_STAT_MTIME;
            st->size = file.entry.size;
            st->mtime = file.entry.mtime.tv_sec;
            return static_cast<zip_int64_t>(sizeof(zip_stat_t));
        }
        case ZIP_SOURCE_ERROR:
            return zip_error_to_data(&file.error, data, length);
        case ZIP_SOURCE_FREE:
            return 0;  // owned by CompressFolder
        case ZIP_SOURCE_SUPPORTS:
            return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE,
                                                  ZIP_SOURCE_STAT, ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, -1);
        default:
            return Fail(file, ZIP_ER_OPNOTSUPP, 0);
    }
}

// Called by libzip (C): nothing may be thrown through it.
zip_int64_t ArchiveFileCallback(void* userdata, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    auto& file = *static_cast<ArchiveFile*>(userdata);
    try {
        return HandleArchiveFile(file, data, length, command);
    } catch (...) {
        file.unreadable = true;
        return Fail(file, ZIP_ER_MEMORY, 0);
    }
}

std::string ZipErrorText(zip_t* archive) {
    const char* text = zip_strerror(archive);
    return text ? text : "unknown zip error";
}

enum class ArchiveOutcome { Written, Retry, Failed };

const std::string& ArchiveName(const Entry& entry) {
    return entry.archiveName.empty() ? entry.rel : entry.archiveName;
}

// Writes `listing` into the new archive `temporary`. Retry: some files could
// not be read as listed (they are marked in `unreadable`).
ArchiveOutcome WriteArchive(int root, const Listing& listing, const std::string& temporary,
                            std::set<std::string>& unreadable, const wchar_t* label) {
    int openError = 0;
    zip_t* archive = zip_open(temporary.c_str(), ZIP_CREATE | ZIP_EXCL, &openError);
    if (archive == nullptr) {
        zip_error_t error;
        zip_error_init_with_code(&error, openError);
        g_log.e(L"%s: cannot create %s: %s", label, temporary, std::string(zip_error_strerror(&error)));
        zip_error_fini(&error);
        return ArchiveOutcome::Failed;
    }
    std::vector<std::unique_ptr<ArchiveFile>> files;
    const auto abandon = [&](const std::string& what) {
        g_log.e(L"%s: %s: %s", label, what, ZipErrorText(archive));
        zip_discard(archive);
        return ArchiveOutcome::Failed;
    };
    for (const auto& dir : listing.dirs) {
        const zip_int64_t index = zip_dir_add(archive, ArchiveName(dir).c_str(), ZIP_FL_ENC_GUESS);
        if (index < 0) return abandon("cannot add " + dir.rel);
        zip_file_set_mtime(archive, static_cast<zip_uint64_t>(index), dir.mtime.tv_sec, 0);
    }
    for (const auto& entry : listing.files) {
        files.push_back(std::make_unique<ArchiveFile>(root, entry));
        zip_source_t* source = zip_source_function(archive, &ArchiveFileCallback, files.back().get());
        if (source == nullptr) return abandon("cannot add " + entry.rel);
        const zip_int64_t index = zip_file_add(archive, ArchiveName(entry).c_str(), source, ZIP_FL_ENC_GUESS);
        if (index < 0) {
            zip_source_free(source);
            return abandon("cannot add " + entry.rel);
        }
        // Level 6, zlib's own default: libzip's default (0) compresses hardest,
        // twice as slow for a few per cent on log files.
        if (zip_set_file_compression(archive, static_cast<zip_uint64_t>(index), ZIP_CM_DEFLATE, 6) != 0) {
            return abandon("cannot compress " + entry.rel);
        }
    }
    // The files are read and compressed here.
    if (zip_close(archive) == 0) return ArchiveOutcome::Written;
    const std::string reason = ZipErrorText(archive);
    zip_discard(archive);
    bool retry = false;
    for (const auto& file : files) {
        if (file->unreadable) {
            g_log.d(L"%s: leaving out %s: %s", label, file->entry.rel, reason);
            unreadable.insert(file->entry.rel);
            retry = true;
        } else if (file->changed) {
            g_log.d(L"%s: %s changed while packed; packing again", label, file->entry.rel);
            retry = true;
        }
    }
    if (!retry) g_log.e(L"%s: cannot write %s: %s", label, temporary, reason);
    return retry ? ArchiveOutcome::Retry : ArchiveOutcome::Failed;
}

// Moves the finished archive to its name, never over a file that appeared there.
bool Publish(const std::string& temporary, const std::string& target, int& error) {
    if (::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) return true;
    error = errno;
    if (error != EINVAL && error != ENOSYS) return false;
    // A file system without RENAME_NOREPLACE: a hard link fails just as well on an existing name.
    if (::link(temporary.c_str(), target.c_str()) != 0) {
        error = errno;
        return false;
    }
    ::unlink(temporary.c_str());
    return true;
}

// Packs what `list` returns into `zipPath`, listing again when files changed
// or could not be read while they were packed (the unreadable ones are left
// out then). `replace`: an existing `zipPath` is replaced, as -Force does.
int Pack(int root, const std::wstring& sourceDir, const std::wstring& zipPath, bool replace, const wchar_t* label,
         const std::function<Listing()>& list) {
    const std::string target = path::ToFs(zipPath).native();
    std::set<std::string> unreadable;
    constexpr int kAttempts = 3;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        Listing listing = list();
        auto& files = listing.files;
        files.erase(std::remove_if(files.begin(), files.end(),
                                   [&](const Entry& e) { return unreadable.count(e.rel) != 0; }),
                    files.end());
        if (listing.dirs.empty() && files.empty()) {
            // Compress-Archive refuses an empty folder too.
            g_log.e(L"%s: nothing to pack in %s", label, sourceDir);
            return 0;
        }
        // Written under another name: a half-written archive never carries the final one.
        const std::string temporary = target + "." + UniqueSuffix() + ".part";
        const ArchiveOutcome outcome = WriteArchive(root, listing, temporary, unreadable, label);
        if (outcome == ArchiveOutcome::Failed) {
            ::unlink(temporary.c_str());
            return 0;
        }
        if (outcome == ArchiveOutcome::Retry) {
            ::unlink(temporary.c_str());
            continue;
        }
        int error = 0;
        const bool published = replace ? ::rename(temporary.c_str(), target.c_str()) == 0
                                       : Publish(temporary, target, error);
        if (!published) {
            if (replace) error = errno;
            g_log.e(L"%s: cannot name the archive %s: %s", label, zipPath, ErrorText(error));
            ::unlink(temporary.c_str());
            return 0;
        }
        return 1;
    }
    g_log.e(L"%s: %s kept changing while packed", label, sourceDir);
    return 0;
}

// What a plug-in's zip holds: the top-level entries of its folder but the
// history, "latest", the delete preference and archives (names compared
// without regard to case, as on Windows), each folder with its whole tree,
// and latest/scan-result.json as "scan-result.json". That scan result is the
// agent's own, so it wins over a top-level file of the same name.
Listing PluginListing(int root, const std::wstring& rootText) {
    const auto packed = [](const std::string& name) {
        return !EqualsIgnoreCase(name, "scan-history.log") && !EqualsIgnoreCase(name, "latest") &&
               !EqualsIgnoreCase(name, "plugin-upload-meta.json") && !IsArchiveName(name);
    };
    Listing top = List(root, false, rootText, kCompressPluginFolder);
    Listing listing;
    for (auto& dir : top.dirs) {
        if (!packed(dir.rel)) continue;
        Listing below = List(root, true, rootText, kCompressPluginFolder, dir.rel);
        listing.dirs.push_back(std::move(dir));
        std::move(below.dirs.begin(), below.dirs.end(), std::back_inserter(listing.dirs));
        std::move(below.files.begin(), below.files.end(), std::back_inserter(listing.files));
    }
    for (auto& file : top.files) {
        if (packed(file.rel)) listing.files.push_back(std::move(file));
    }

    int error = 0;
    const Fd latest = OpenBeneath(root, "latest", kDirFlags, error);
    struct stat st {};
    if (latest.Valid() && ::fstatat(latest.Get(), "scan-result.json", &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(st.st_mode)) {
        Entry scanResult;
        scanResult.rel = "latest/scan-result.json";
        scanResult.archiveName = "scan-result.json";
        scanResult.size = static_cast<std::uint64_t>(st.st_size);
        scanResult.mtime = st.st_mtim;
        scanResult.mode = st.st_mode;
        auto& files = listing.files;
        files.erase(std::remove_if(files.begin(), files.end(),
                                   [&](const Entry& e) { return ArchiveName(e) == scanResult.archiveName; }),
                    files.end());
        files.push_back(std::move(scanResult));
    }
    // Parents before children, as zip_dir_add needs them.
    const auto byName = [](const Entry& a, const Entry& b) { return ArchiveName(a) < ArchiveName(b); };
    std::sort(listing.dirs.begin(), listing.dirs.end(), byName);
    std::sort(listing.files.begin(), listing.files.end(), byName);
    return listing;
}

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

}  // namespace

int NativeCollection::CopyLogs(const std::wstring& source, const std::wstring& destination,
                               std::uint64_t keepBytes) {
    return Guarded(kCopyLogs, [&] {
        int error = 0;
        Fd sourceRoot = OpenRoot(source, error);
        if (!sourceRoot.Valid()) {
            g_log.e(L"%s: cannot open %s: %s", kCopyLogs, source, ErrorText(error));
            return 0;
        }
        // Select first, so that what is not kept is never read.
        Listing listing = List(sourceRoot.Get(), true, source, kCopyLogs);
        auto& files = listing.files;
        files.erase(std::remove_if(files.begin(), files.end(), [](const Entry& e) { return IsArchiveName(e.rel); }),
                    files.end());
        files.resize(KeepNewest(files, keepBytes));

        std::error_code ec;
        fs::create_directories(path::ToFs(destination), ec);
        Fd destinationRoot = OpenRoot(destination, error);
        if (!destinationRoot.Valid()) {
            g_log.e(L"%s: cannot create %s: %s", kCopyLogs, destination, ErrorText(error));
            return 0;
        }
        // Every folder, as copy-item -recurse recreates them, empty or not.
        for (const auto& dir : listing.dirs) {
            Fd parent = OpenBeneath(destinationRoot.Get(), ParentOf(dir.rel), kDirFlags, error);
            if (!parent.Valid() ||
                (::mkdirat(parent.Get(), NameOf(dir.rel).c_str(), FileMode(dir.mode) | S_IXUSR) != 0 &&
                 errno != EEXIST)) {
                g_log.d(L"%s: cannot create %s/%s: %s", kCopyLogs, destination, dir.rel,
                        ErrorText(parent.Valid() ? errno : error));
            }
        }
        std::vector<char> buffer(256 * 1024);
        bool ok = true;
        int copied = 0;
        for (const auto& file : files) {
            const CopyOutcome outcome =
                CopyOneFile(sourceRoot.Get(), destinationRoot.Get(), file, source, destination, buffer);
            ok = ok && outcome != CopyOutcome::Failed;
            copied += outcome == CopyOutcome::Copied ? 1 : 0;
        }
        g_log.d(L"%s: copied the %d newest files from %s", kCopyLogs, copied, source);
        return ok ? 1 : 0;
    });
}

int NativeCollection::RemoveArchives(const std::wstring& folder) {
    return Guarded(kRemoveArchives, [&] {
        int error = 0;
        Fd root = OpenRoot(folder, error);
        if (!root.Valid()) {
            g_log.e(L"%s: cannot open %s: %s", kRemoveArchives, folder, ErrorText(error));
            return 0;
        }
        bool ok = true;
        for (const auto& file : List(root.Get(), true, folder, kRemoveArchives).files) {
            if (IsArchiveName(file.rel)) ok = RemoveBeneath(root.Get(), file.rel, folder, kRemoveArchives) && ok;
        }
        return ok ? 1 : 0;
    });
}

int NativeCollection::LimitLogSize(const std::wstring& folder, std::uint64_t limitBytes) {
    return Guarded(kLimitLogSize, [&] {
        int error = 0;
        Fd root = OpenRoot(folder, error);
        if (!root.Valid()) {
            g_log.e(L"%s: cannot open %s: %s", kLimitLogSize, folder, ErrorText(error));
            return 0;
        }
        auto files = List(root.Get(), true, folder, kLimitLogSize).files;
        const std::size_t kept = KeepNewest(files, limitBytes);
        bool ok = true;
        for (std::size_t i = kept; i < files.size(); ++i) {
            ok = RemoveBeneath(root.Get(), files[i].rel, folder, kLimitLogSize) && ok;
        }
        return ok ? 1 : 0;
    });
}

int NativeCollection::ScrubLogs(const std::wstring& folder) {
    return Guarded(kScrubLogs, [&] {
        int error = 0;
        Fd root = OpenRoot(folder, error);
        if (!root.Valid()) {
            g_log.e(L"%s: cannot open %s: %s", kScrubLogs, folder, ErrorText(error));
            return 0;
        }
        bool ok = true;
        for (const auto& file : List(root.Get(), false, folder, kScrubLogs).files) {
            ok = ScrubOne(root.Get(), file, folder) && ok;
        }
        return ok ? 1 : 0;
    });
}

int NativeCollection::ExportRegistry(const std::wstring& key, const std::wstring& outputFile) {
    return Guarded(kExportRegistry, [&] {
        const auto env = CurrentEnv();
        const auto keys = env && env->registry ? env->registry->Snapshot(Hive::LocalMachine, key)
                                                : std::vector<RegistryKeyData>{};
        if (keys.empty()) {
            g_log.e(L"%s: no key HKEY_LOCAL_MACHINE\\%s", kExportRegistry, key);
            return 0;
        }
        int error = 0;
        if (!WriteNewFile(outputFile, EncodeUtf16LeWithBom(RenderRegText(Hive::LocalMachine, keys)), error)) {
            g_log.e(L"%s: cannot write %s: %s", kExportRegistry, outputFile, ErrorText(error));
            return 0;
        }
        return 1;
    });
}

int NativeCollection::CompressFolder(const std::wstring& sourceDir, const std::wstring& zipPath) {
    return Guarded(kCompressFolder, [&] {
        int error = 0;
        Fd root = OpenRoot(sourceDir, error);
        if (!root.Valid()) {
            g_log.e(L"%s: cannot open %s: %s", kCompressFolder, sourceDir, ErrorText(error));
            return 0;
        }
        struct stat existing {};
        if (::lstat(path::ToFs(zipPath).c_str(), &existing) == 0) {
            g_log.e(L"%s: %s exists already", kCompressFolder, zipPath);
            return 0;
        }
        return Pack(root.Get(), sourceDir, zipPath, false, kCompressFolder,
                    [&] { return List(root.Get(), true, sourceDir, kCompressFolder); });
    });
}

int NativeCollection::CompressPluginFolder(const std::wstring& diagFolder, const std::wstring& zipPath) {
    return Guarded(kCompressPluginFolder, [&] {
        int error = 0;
        Fd root = OpenRoot(diagFolder, error);
        if (!root.Valid()) {
            g_log.e(L"%s: cannot open %s: %s", kCompressPluginFolder, diagFolder, ErrorText(error));
            return 0;
        }
        return Pack(root.Get(), diagFolder, zipPath, true, kCompressPluginFolder,
                    [&] { return PluginListing(root.Get(), diagFolder); });
    });
}

std::wstring NativeCollection::PackageScriptName() { return L"install.sh"; }

int NativeCollection::RunPackageScript(const std::wstring& script, const std::wstring& outputFolder) {
    return Guarded(kRunPackageScript, [&] {
        const auto env = CurrentEnv();
        if (!env || !env->processes) return 0;
        ProcessRequest command;
        command.argv = {L"/bin/sh", script, L"-command", L"get-diagnostics", L"-outDir", outputFolder};
        // Not the test time-out (that is judged afterwards) but the hard stop
        // that keeps one hung script from holding every later scan.
        command.timeout = ProcessWrap::ChildProcessCeiling();
        const ProcessResult result = env->processes->Spawn(command);
        if (!result.started) {
            g_log.e(L"%s: cannot start %s", kRunPackageScript, script);
            return 0;
        }
        if (result.timedOut) {
            g_log.e(L"%s: %s was stopped after its time limit", kRunPackageScript, script);
            return 0;
        }
        if (result.exitCode != 0) {
            g_log.d(L"%s: %s ended with %d", kRunPackageScript, script, result.exitCode);
            return 0;
        }
        return 1;
    });
}

}  // namespace zep::platform

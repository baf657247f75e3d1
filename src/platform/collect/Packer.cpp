#include "platform/collect/Packer.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/agent/Log.h"
#include "platform/collect/Deflate.h"
#include "platform/collect/LogScrub.h"
#include "platform/util/Strings.h"

namespace zep::collect {
namespace {

using platform::Folder;
using platform::FsStatus;
using platform::InputFile;

constexpr std::size_t kReadBytes = 256 * 1024;
// Pieces of one piece of work at most: folders and empty files carry no
// bytes, so the byte size alone would not bound them.
constexpr std::size_t kMaxPiecesPerJob = 4096;
constexpr unsigned kMaxWorkers = 4;
// Files up to this share of a piece are read by the deflate threads.
constexpr std::size_t kDeferredShare = 4;

// One entry's share of a job: a folder, or some of a file's bytes.
struct Piece {
    std::size_t entry = 0;
    bool folder = false;
    bool first = false;  // the file's header goes before it
    bool last = false;   // the file ends with it
    // A small file read by the thread that deflates it, so that reading many
    // small files is shared between the threads too.
    bool deferred = false;
    bool missing = false;  // deferred, and gone or unreadable when read
    std::size_t inputOffset = 0;
    std::size_t inputSize = 0;
    std::size_t outputOffset = 0;
    std::size_t outputSize = 0;
    std::uint32_t crc = 0;
};

// A unit of deflate work: the bytes of the pieces in a row, and what deflate
// made of them. Jobs are reused, their buffers with them.
struct Job {
    std::string input;
    std::vector<Piece> pieces;
    std::string output;
    std::size_t deferredBytes = 0;  // listed sizes of the deferred pieces
    bool done = false;
    bool failed = false;

    void Clear() {
        input.clear();
        pieces.clear();
        output.clear();
        deferredBytes = 0;
        done = failed = false;
    }
};

// Open folders below the packed roots, the last few kept: the entries come
// sorted by name, so a folder's files mostly follow one another.
class FolderCache {
public:
    Folder* Get(const PackSource& source, FsStatus* status) {
        const std::vector<std::wstring>& path = *source.path;
        const auto folders = path.end() - 1;
        for (auto& held : held_) {
            if (held.first.first == source.root.get() &&
                std::equal(held.first.second.begin(), held.first.second.end(), path.begin(), folders)) {
                return held.second.get();  // found without a copy of the path: this runs once per file
            }
        }
        Key key{source.root.get(), std::vector<std::wstring>(path.begin(), folders)};
        std::unique_ptr<Folder> opened;
        Folder* current = source.root.get();
        for (const auto& name : key.second) {
            opened = current->OpenFolder(name, status);
            if (!opened) return nullptr;
            current = opened.get();
        }
        if (!opened) return source.root.get();
        if (held_.size() == kHeld) held_.pop_front();
        held_.emplace_back(std::move(key), std::move(opened));
        return held_.back().second.get();
    }

private:
    using Key = std::pair<Folder*, std::vector<std::wstring>>;
    static constexpr std::size_t kHeld = 8;
    std::deque<std::pair<Key, std::unique_ptr<Folder>>> held_;
};

std::string StatusText(const FsStatus& status) {
    switch (status.error) {
        case platform::FsError::NotFound: return "gone";
        case platform::FsError::Link: return "a link";
        case platform::FsError::WrongKind: return "not a regular file";
        default: return status.message.empty() ? std::string("cannot be opened") : status.message;
    }
}

// Opens a source's file through the folder cache; null (with the status)
// when it is gone, a link or not a regular file.
std::unique_ptr<InputFile> OpenSource(FolderCache& folders, const PackSource& source, FsStatus& status) {
    Folder* folder = !source.path || source.path->empty() ? nullptr : folders.Get(source, &status);
    return folder ? folder->OpenFile(source.path->back(), &status) : nullptr;
}

// Reads whole files for the deflate threads: one per thread, with its own
// open folders and buffer.
class FileReader {
public:
    FileReader(const std::vector<PackEntry>& entries, const wchar_t* label) : entries_(entries), label_(label) {}

    // Appends entry `index`'s bytes (at most as listed, scrubbed when asked)
    // to `out`. False when nothing of it could be read.
    bool ReadWhole(std::size_t index, std::string& out) {
        const PackEntry& entry = entries_[index];
        const PackSource& source = *entry.file;
        FsStatus status;
        std::unique_ptr<InputFile> in = OpenSource(folders_, source, status);
        if (!in) {
            g_log.d(L"%s: leaving out %s: %s", label_, text::FromUtf8(entry.name), StatusText(status));
            return false;
        }
        std::optional<LogScrubber> scrubber;
        if (source.scrub) scrubber.emplace();
        const std::size_t start = out.size();
        std::uint64_t remaining = source.listedSize;
        while (remaining > 0) {
            const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(remaining, kReadBytes));
            char* target = buffer_.data();
            if (!scrubber) {
                out.resize(out.size() + want);
                target = out.data() + out.size() - want;
            }
            std::size_t got = 0;
            const bool read = in->Read(target, want, got, &status);
            if (!read) got = 0;
            if (!scrubber) out.resize(out.size() - want + got);
            if (scrubber && got > 0) scrubber->Feed(std::string_view(buffer_.data(), got), out);
            if (!read) {
                g_log.d(L"%s: %s could not be read to its end: %s", label_, text::FromUtf8(entry.name),
                        StatusText(status));
                if (out.size() == start && remaining == source.listedSize) return false;
                break;
            }
            if (got == 0) break;  // shrank since it was listed: packed as it is now
            remaining -= got;
        }
        if (scrubber) scrubber->Finish(out);
        return true;
    }

private:
    const std::vector<PackEntry>& entries_;
    const wchar_t* label_;
    FolderCache folders_;
    std::string buffer_ = std::string(kReadBytes, '\0');
};

void Compress(Job& job, PieceDeflater& deflater, FileReader& reader) {
    for (Piece& piece : job.pieces) {
        if (piece.folder) continue;
        if (piece.deferred) {
            piece.inputOffset = job.input.size();
            piece.missing = !reader.ReadWhole(piece.entry, job.input);
            if (piece.missing) continue;
            piece.inputSize = job.input.size() - piece.inputOffset;
        }
        const std::string_view input(job.input.data() + piece.inputOffset, piece.inputSize);
        piece.outputOffset = job.output.size();
        if (!deflater.Deflate(input, piece.last, job.output)) {
            job.failed = true;
            return;
        }
        piece.outputSize = job.output.size() - piece.outputOffset;
        piece.crc = Crc32(0, input);
    }
}

// Deflate threads over a queue of jobs; with no threads, a job is compressed
// when it is submitted.
class Pool {
public:
    Pool(unsigned workers, const std::vector<PackEntry>& entries, const wchar_t* label)
        : entries_(entries), label_(label) {
        for (unsigned i = 0; i < workers; ++i) {
            try {
                threads_.emplace_back([this] { Work(); });
            } catch (...) {
                break;  // fewer threads (or none) still pack
            }
        }
        if (threads_.empty()) {
            inline_ = std::make_unique<PieceDeflater>();
            inlineReader_ = std::make_unique<FileReader>(entries_, label_);
        }
    }

    ~Pool() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        for (auto& thread : threads_) thread.join();
    }

    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    std::size_t Threads() const { return threads_.size(); }

    void Submit(Job& job) {
        if (inline_) {
            Run(job, *inline_, *inlineReader_);
            job.done = true;
            return;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.push_back(&job);
        }
        wake_.notify_one();
    }

    void WaitFor(Job& job) {
        std::unique_lock<std::mutex> lock(mutex_);
        finished_.wait(lock, [&] { return job.done; });
    }

    bool IsDone(Job& job) {
        std::lock_guard<std::mutex> lock(mutex_);
        return job.done;
    }

private:
    static void Run(Job& job, PieceDeflater& deflater, FileReader& reader) {
        try {
            Compress(job, deflater, reader);
        } catch (...) {
            job.failed = true;  // out of memory: the archive fails, the scan goes on
        }
    }

    void Work() {
        PieceDeflater deflater;
        FileReader reader(entries_, label_);
        for (;;) {
            Job* job = nullptr;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                wake_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
                if (queue_.empty()) return;
                job = queue_.front();
                queue_.pop_front();
            }
            Run(*job, deflater, reader);
            {
                std::lock_guard<std::mutex> lock(mutex_);
                job->done = true;
            }
            finished_.notify_all();
        }
    }

    const std::vector<PackEntry>& entries_;
    const wchar_t* label_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable finished_;
    std::deque<Job*> queue_;
    std::vector<std::thread> threads_;
    std::unique_ptr<PieceDeflater> inline_;
    std::unique_ptr<FileReader> inlineReader_;
    bool stopping_ = false;
};

// Upper bound of a file's bytes in the archive: a scrubbed address can grow
// from 8 bytes ("1.2.3.4" and a quote) to 14, never double.
std::uint64_t MaxEntrySize(const PackSource& source) {
    return source.scrub ? source.listedSize * 2 : source.listedSize;
}

class Packing {
public:
    Packing(const std::vector<PackEntry>& entries, platform::OutputFile& out, const wchar_t* label,
            const PackOptions& options)
        : entries_(entries), writer_(out, options.limits), label_(label), pieceBytes_(options.pieceBytes) {
        std::uint64_t total = 0;
        for (const auto& entry : entries_) total += entry.file ? entry.file->listedSize : 0;
        unsigned workers = options.workers;
        if (workers == 0) workers = std::clamp(std::thread::hardware_concurrency(), 1u, kMaxWorkers);
        // What fits one piece is deflated here: threads would only cost.
        if (total <= pieceBytes_) workers = 0;
        pool_ = std::make_unique<Pool>(workers, entries_, label_);
        // Two jobs per thread keep every thread busy while one is written.
        jobs_.resize(pool_->Threads() * 2 + 2);
        for (auto& job : jobs_) free_.push_back(&job);
        readBuffer_.resize(kReadBytes);
    }

    PackOutcome Run() {
        PackOutcome outcome;
        job_ = Acquire();
        for (std::size_t i = 0; i < entries_.size() && ok_; ++i) {
            if (entries_[i].file) {
                AddFile(i);
            } else {
                Piece folder;
                folder.entry = i;
                folder.folder = true;
                AddPiece(folder);
            }
        }
        if (ok_ && !job_->pieces.empty()) Submit();
        DrainAll();
        if (ok_ && writer_.Finish()) {
            outcome.written = true;
            outcome.sha256 = writer_.Sha256Hex();
            outcome.bytes = writer_.Size();
        } else if (!writer_.Status().ok()) {
            g_log.e(L"%s: cannot write the archive: %s", label_, writer_.Status().message);
        }
        outcome.files = files_;
        outcome.left = left_;
        return outcome;
    }

private:
    // ---- filling jobs ----

    // Adds a piece to the job being filled and hands the job over when it is full.
    void AddPiece(const Piece& piece) {
        job_->pieces.push_back(piece);
        if (job_->input.size() + job_->deferredBytes >= pieceBytes_ || job_->pieces.size() >= kMaxPiecesPerJob) {
            Submit();
        }
    }

    void AddFile(std::size_t index) {
        const PackEntry& entry = entries_[index];
        const PackSource& source = *entry.file;
        if (source.listedSize <= pieceBytes_ / kDeferredShare) {
            Piece piece;
            piece.entry = index;
            piece.first = piece.last = piece.deferred = true;
            job_->deferredBytes += static_cast<std::size_t>(MaxEntrySize(source));
            AddPiece(piece);
            return;
        }
        FsStatus status;
        std::unique_ptr<InputFile> in = OpenSource(folders_, source, status);
        if (!in) {
            g_log.d(L"%s: leaving out %s: %s", label_, text::FromUtf8(entry.name), StatusText(status));
            ++left_;
            return;
        }
        std::unique_ptr<LogScrubber> scrubber = source.scrub ? std::make_unique<LogScrubber>() : nullptr;
        std::uint64_t remaining = source.listedSize;
        std::size_t pieceStart = job_->input.size();
        bool first = true;
        for (;;) {
            // Reads straight into the job unless the scrub stands between.
            std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(remaining, kReadBytes));
            if (!scrubber) want = std::min(want, pieceBytes_ - job_->input.size());
            std::size_t got = 0;
            bool failed = false;
            if (want > 0) {
                std::string& input = job_->input;
                char* target = readBuffer_.data();
                if (!scrubber) {
                    input.resize(input.size() + want);
                    target = input.data() + input.size() - want;
                }
                if (!in->Read(target, want, got, &status)) {
                    g_log.d(L"%s: %s could not be read to its end: %s", label_, text::FromUtf8(entry.name),
                            StatusText(status));
                    failed = true;
                    got = 0;
                }
                if (!scrubber) input.resize(input.size() - want + got);
                if (scrubber && got > 0) scrubber->Feed(std::string_view(readBuffer_.data(), got), input);
                remaining -= got;
            }
            // A file that shrank since it was listed is packed as it is now.
            const bool end = remaining == 0 || got == 0;
            if (end && scrubber) scrubber->Finish(job_->input);
            if (end && failed && first && job_->input.size() == pieceStart) {
                ++left_;  // nothing of it could be read
                return;
            }
            if (!end && job_->input.size() < pieceBytes_) continue;

            Piece piece;
            piece.entry = index;
            piece.first = first;
            piece.last = end;
            piece.inputOffset = pieceStart;
            piece.inputSize = job_->input.size() - pieceStart;
            AddPiece(piece);
            if (end) break;
            // A piece that is not a file's last fills its job, so a new job starts here.
            pieceStart = job_->input.size();
            first = false;
        }
        ++files_;
    }

    void Submit() {
        Job* job = job_;
        job_ = nullptr;
        inFlight_.push_back(job);
        pool_->Submit(*job);
        WriteFinished();
        job_ = Acquire();
    }

    // A free job; while there is none, the oldest one in flight is waited
    // for and written.
    Job* Acquire() {
        while (free_.empty()) {
            pool_->WaitFor(*inFlight_.front());
            WriteOldest();
        }
        Job* job = free_.back();
        free_.pop_back();
        job->Clear();
        return job;
    }

    void WriteFinished() {
        while (!inFlight_.empty() && pool_->IsDone(*inFlight_.front())) WriteOldest();
    }

    void DrainAll() {
        while (!inFlight_.empty()) {
            pool_->WaitFor(*inFlight_.front());
            WriteOldest();
        }
    }

    // ---- writing, in order ----

    void WriteOldest() {
        Job* job = inFlight_.front();
        inFlight_.pop_front();
        if (ok_ && job->failed) {
            g_log.e(L"%s: cannot deflate (out of memory)", label_);
            ok_ = false;
        }
        for (const Piece& piece : job->pieces) {
            if (!ok_) break;
            ok_ = WritePiece(*job, piece);
        }
        free_.push_back(job);
    }

    bool WritePiece(const Job& job, const Piece& piece) {
        const PackEntry& entry = entries_[piece.entry];
        if (piece.folder) return writer_.AddFolder(entry.name, entry.modifiedNs);
        if (piece.deferred) ++(piece.missing ? left_ : files_);
        if (piece.missing) return true;
        const std::string_view deflated(job.output.data() + piece.outputOffset, piece.outputSize);
        if (piece.first && piece.last) {
            return writer_.AddFile(entry.name, entry.modifiedNs, piece.crc, piece.inputSize, deflated);
        }
        if (piece.first) {
            crc_ = piece.crc;
            size_ = piece.inputSize;
            return writer_.BeginFile(entry.name, entry.modifiedNs, MaxEntrySize(*entry.file)) &&
                   writer_.Append(deflated);
        }
        crc_ = Crc32Combine(crc_, piece.crc, piece.inputSize);
        size_ += piece.inputSize;
        if (!writer_.Append(deflated)) return false;
        return !piece.last || writer_.EndFile(crc_, size_);
    }

    const std::vector<PackEntry>& entries_;
    ZipWriter writer_;
    const wchar_t* label_;
    std::size_t pieceBytes_;
    std::vector<Job> jobs_;  // before the pool: its threads end before the jobs go
    std::unique_ptr<Pool> pool_;
    std::vector<Job*> free_;
    std::deque<Job*> inFlight_;
    Job* job_ = nullptr;
    FolderCache folders_;
    std::string readBuffer_;
    std::uint32_t crc_ = 0;   // of the file being written in pieces, so far
    std::uint64_t size_ = 0;
    std::size_t files_ = 0;
    std::size_t left_ = 0;
    bool ok_ = true;
};

}  // namespace

PackOutcome PackArchive(const std::vector<PackEntry>& entries, platform::OutputFile& out, const wchar_t* label,
                        const PackOptions& options) {
    try {
        return Packing(entries, out, label, options).Run();
    } catch (const std::exception& e) {
        g_log.e(L"%s: %s", label, std::string(e.what()));
    } catch (...) {
        g_log.e(L"%s: unexpected failure", label);
    }
    return PackOutcome{};
}

}  // namespace zep::collect

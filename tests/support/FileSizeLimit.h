// Any file this process writes is limited to `bytes` while the object lives;
// a longer write fails half-way with EFBIG (SIGXFSZ ignored), as on a full disk.
#pragma once

#include <signal.h>
#include <sys/resource.h>

namespace zep::testing {

class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &saved_);
        previous_ = signal(SIGXFSZ, SIG_IGN);
        rlimit limited = saved_;
        limited.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limited);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &saved_);
        signal(SIGXFSZ, previous_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit saved_{};
    sighandler_t previous_ = nullptr;
};

}  // namespace zep::testing

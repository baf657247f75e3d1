// An owned file descriptor, closed when it goes out of scope.
#pragma once

#include <unistd.h>

#include <utility>

namespace zep::platform {

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) noexcept : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            Reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { Reset(); }

    int Get() const noexcept { return fd_; }
    bool Valid() const noexcept { return fd_ >= 0; }
    int Release() noexcept { return std::exchange(fd_, -1); }
    void Reset() noexcept {
        // Never retry close(): on Linux the descriptor is gone even after EINTR.
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

}  // namespace zep::platform

#pragma once

// A file descriptor that closes when it goes, and a whole write to one: what
// the two ways of publishing files (FUSION's sets and the print spool's jobs)
// both build on.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

namespace files {

class Descriptor {
public:
    explicit Descriptor(int fd)
        : m_fd(fd)
    {
    }
    Descriptor(Descriptor&& other) noexcept
        : m_fd(std::exchange(other.m_fd, -1))
    {
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }

    int get() const { return m_fd; }
    // Gives the descriptor up to the caller, who closes it.
    int release() { return std::exchange(m_fd, -1); }
    // Closes now: 0, or the error close(2) gives (a late write failure on some
    // file systems, which a file taken as written must not hide).
    int close()
    {
        return ::close(std::exchange(m_fd, -1)) == 0 ? 0 : errno;
    }

private:
    int m_fd;
};

// Writes all of bytes, through interruptions and short writes: 0, or the error.
inline int writeWhole(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

} // namespace files

#include "Spool.h"

#include "Descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>
#include <utility>

namespace fs = std::filesystem;

namespace belmontis {

namespace {

std::runtime_error failure(const fs::path& path, const std::string& doing)
{
    return std::runtime_error("cannot " + doing + " " + path.string() + ": " + std::strerror(errno));
}

using files::Descriptor;

// Writes bytes whole and makes them durable.
void writeAll(int fd, const QByteArray& bytes, const fs::path& path)
{
    if (const int error = files::writeWhole(fd, std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size())))) {
        errno = error;
        throw failure(path, "write");
    }
    if (::fsync(fd) != 0) {
        throw failure(path, "write");
    }
}

// A file of our own beside the final names, hidden, created with the mode the
// umask gives (unlike mkstemp's 0600) so that the published file has it too.
Descriptor createAside(const fs::path& folder, const std::string& stem, std::string& path)
{
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
        path = (folder / ("." + stem + std::to_string(::getpid()) + "-" + std::to_string(random()) + ".partial")).string();
        Descriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (fd.get() >= 0 || errno != EEXIST) {
            if (fd.get() < 0) {
                throw failure(folder, "write in");
            }
            return fd;
        }
    }
    throw failure(folder, "write in");
}

// The aside copy goes, whatever happens.
struct Unlinker {
    fs::path path;
    ~Unlinker()
    {
        if (!path.empty()) {
            ::unlink(path.c_str());
        }
    }
};

} // namespace

fs::path publishExclusively(const QByteArray& pdf, const fs::path& folder, const std::string& stem)
{
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        throw std::runtime_error("cannot make the folder " + folder.string() + ": " + error.message());
    }

    std::string aside;
    Descriptor fd = createAside(folder, stem, aside);
    Unlinker cleanup{aside};
    writeAll(fd.get(), pdf, aside);
    if (fd.close() != 0) {
        throw failure(aside, "write");
    }

    for (int n = 1; n < 1000000; ++n) {
        const fs::path candidate = folder / (stem + std::to_string(n) + ".pdf");
        if (::link(aside.c_str(), candidate.c_str()) == 0) {
            return candidate;
        }
        if (errno == EEXIST) {
            continue;
        }
        if (errno != EPERM && errno != EOPNOTSUPP && errno != EXDEV) {
            throw failure(candidate, "write");
        }
        // No hard links here: take the name exclusively and write under it.
        Descriptor direct(::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (direct.get() < 0) {
            if (errno == EEXIST) {
                continue;
            }
            throw failure(candidate, "write");
        }
        try {
            writeAll(direct.get(), pdf, candidate);
            if (direct.close() != 0) {
                throw failure(candidate, "write");
            }
        } catch (...) {
            ::unlink(candidate.c_str());
            throw;
        }
        return candidate;
    }
    throw std::runtime_error("no free file name left for " + stem + " in " + folder.string());
}

} // namespace belmontis

#include "FusionBatch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <cstring>
#include <random>
#include <stdexcept>

namespace server {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kHiddenPrefix = ".calvarine-";

// Throws the system's error with what was being done; what is built only
// once error is taken, so that building it cannot change errno first.
template <typename What>
[[noreturn]] void throwSystemError(int error, const What& what)
{
    throw std::system_error(error, std::generic_category(), what());
}

// A file descriptor closed when it goes.
class Descriptor {
public:
    explicit Descriptor(int fd)
        : m_fd(fd)
    {
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    int get() const { return m_fd; }
    // Closes now and reports the error close(2) gives (a late write failure on some file systems).
    int close()
    {
        const int fd = m_fd;
        m_fd = -1;
        return ::close(fd) == 0 ? 0 : errno;
    }

private:
    int m_fd;
};

Descriptor openDirectory(const fs::path& directory)
{
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        throwSystemError(errno, [&] { return "cannot open " + directory.string(); });
    }
    return Descriptor(fd);
}

} // namespace

FusionBatch::FusionBatch(fs::path directory, PublishObserver observer)
    : m_directory(std::move(directory))
    , m_observer(std::move(observer))
{
}

FusionBatch::~FusionBatch()
{
    if (!m_done) {
        rollback();
    }
}

fs::path FusionBatch::hiddenName(std::string_view kind)
{
    static_assert(sizeof(unsigned) >= 4);
    std::random_device random;
    const std::string name = std::string(kHiddenPrefix) + std::to_string(::getpid()) + "-" + std::to_string(++m_counter) + "-"
        + std::to_string(random()) + std::string(kind);
    return m_directory / name;
}

void FusionBatch::stage(const std::string& name, std::string_view bytes)
{
    // O_EXCL: the name is ours alone; 0666 lets the umask decide who else may read.
    fs::path staged;
    int fd = -1;
    for (int attempt = 0; fd < 0; ++attempt) {
        staged = hiddenName(".part");
        fd = ::open(staged.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && (errno != EEXIST || attempt > 8)) {
            throwSystemError(errno, [&] { return "cannot write " + name + " in " + m_directory.string(); });
        }
    }
    Descriptor file(fd);
    m_files.push_back({name, staged, {}, false});
    while (!bytes.empty()) {
        const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            throwSystemError(errno, [&] { return "cannot write " + name; });
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    if (const int error = file.close()) {
        throwSystemError(error, [&] { return "cannot write " + name; });
    }
}

void FusionBatch::syncDirectory() const
{
    const Descriptor directory = openDirectory(m_directory);
    if (::fsync(directory.get()) != 0) {
        throwSystemError(errno, [&] { return "cannot sync " + m_directory.string(); });
    }
}

void FusionBatch::publish()
{
    if (m_files.empty()) {
        return;
    }
    {
        // One pass for all files: the journal commits once, where an fdatasync
        // per file would commit it once per file.
        const Descriptor directory = openDirectory(m_directory);
        if (::syncfs(directory.get()) != 0) {
            throwSystemError(errno, [&] { return "cannot write the files in " + m_directory.string(); });
        }
    }
    if (m_observer) {
        m_observer(PublishStep::Staged, 0);
    }
    std::size_t index = 0;
    for (File& file : m_files) {
        const fs::path target = m_directory / file.name;
        // Keep the file being replaced under a hidden name, for a rollback.
        for (int attempt = 0;; ++attempt) {
            const fs::path former = hiddenName(".old");
            if (::link(target.c_str(), former.c_str()) == 0) {
                file.former = former;
                break;
            }
            if (errno == ENOENT) {
                break;
            }
            if (errno != EEXIST || attempt > 8) {
                throwSystemError(errno, [&] { return "cannot replace " + file.name; });
            }
        }
        if (::rename(file.staged.c_str(), target.c_str()) != 0) {
            throwSystemError(errno, [&] { return "cannot write " + file.name; });
        }
        file.published = true;
        if (m_observer) {
            m_observer(PublishStep::Renamed, ++index);
        }
    }
    syncDirectory();
}

void FusionBatch::commit()
{
    m_done = true;
    for (const File& file : m_files) {
        if (!file.former.empty()) {
            ::unlink(file.former.c_str());
        }
    }
}

void FusionBatch::rollback() noexcept
{
    if (m_done) {
        return;
    }
    m_done = true;
    bool published = false;
    for (auto file = m_files.rbegin(); file != m_files.rend(); ++file) {
        if (!file->published) {
            ::unlink(file->staged.c_str());
            if (!file->former.empty()) {
                ::unlink(file->former.c_str());
            }
            continue;
        }
        published = true;
        const fs::path target = m_directory / file->name;
        if (file->former.empty()) {
            ::unlink(target.c_str());
        } else {
            ::rename(file->former.c_str(), target.c_str());
        }
    }
    if (published) {
        try {
            syncDirectory();
        } catch (const std::exception&) {
            // Nothing more can be done: the names are back in the page cache at least.
        }
    }
}

void sweepLeftovers(const fs::path& directory, std::chrono::seconds age)
{
    const auto now = std::chrono::system_clock::now();
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (!name.starts_with(kHiddenPrefix) || !(name.ends_with(".part") || name.ends_with(".old"))) {
            continue;
        }
        struct stat status {};
        if (::lstat(entry->path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            continue;
        }
        const auto changed = std::chrono::system_clock::from_time_t(status.st_ctim.tv_sec);
        if (now - changed >= age) {
            ::unlink(entry->path().c_str());
        }
    }
}

} // namespace server

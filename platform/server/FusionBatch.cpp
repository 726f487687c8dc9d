#include "FusionBatch.h"
#include "PublicationRecord.h"

#include "Descriptor.h"

#include <fcntl.h>
#include <sys/file.h>
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
// The record's name ends with its state: what the next run does if this one dies.
constexpr std::string_view kUndo = ".undo";       // renaming not finished: put the earlier files back
constexpr std::string_view kKeep = ".keep";       // every file in place: keep them, drop the backups
constexpr std::string_view kWriting = ".journal"; // being written: not a record yet

std::string reason(int error)
{
    return std::strerror(error);
}

// The system's error with what was being done, its code kept (a full disk is
// told as such); what is built only once error is taken, so errno stays.
template <typename What>
[[noreturn]] void throwSystemError(int error, const What& what)
{
    throw std::system_error(error, std::generic_category(), what());
}

bool isOurs(std::string_view name)
{
    if (!name.starts_with(kHiddenPrefix)) {
        return false;
    }
    for (const std::string_view suffix : {std::string_view(".part"), std::string_view(".old"), kUndo, kKeep, kWriting}) {
        if (name.ends_with(suffix)) {
            return true;
        }
    }
    return false;
}

using files::Descriptor;

Descriptor openDirectory(const fs::path& directory)
{
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        throwSystemError(errno, [&] { return "cannot open " + directory.string(); });
    }
    return Descriptor(fd);
}

bool lockDirectory(int fd, bool wait)
{
    while (::flock(fd, LOCK_EX | (wait ? 0 : LOCK_NB)) != 0) {
        if (errno == EWOULDBLOCK && !wait) {
            return false;
        }
        if (errno != EINTR) {
            throwSystemError(errno, [] { return std::string("cannot lock the folder"); });
        }
    }
    return true;
}

void syncDirectory(int fd, const fs::path& directory)
{
    if (::fsync(fd) != 0) {
        throwSystemError(errno, [&] { return "cannot sync " + directory.string(); });
    }
}

bool present(const fs::path& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

bool holds(const fs::path& path, const FusionBatch::File& file)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && status.st_dev == file.device && status.st_ino == file.inode;
}

void note(std::string& problems, const std::string& what, int error)
{
    problems += (problems.empty() ? "" : "; ") + what + ": " + reason(error);
}

// Puts back what a set replaced, latest first, where its name still holds the
// set's own file; removes the set's hidden files. Gives what could not be done.
std::string undo(const fs::path& directory, const std::vector<FusionBatch::File>& files)
{
    std::string problems;
    for (auto file = files.rbegin(); file != files.rend(); ++file) {
        const fs::path target = directory / file->name;
        const fs::path staged = directory / file->staged;
        const fs::path former = directory / file->former;
        if (present(staged)) {
            // Never renamed: the name still holds whatever it held.
            if (::unlink(staged.c_str()) != 0 && errno != ENOENT) {
                note(problems, "cannot remove " + staged.string(), errno);
            }
        } else if (holds(target, *file)) {
            if (present(former)) {
                if (::rename(former.c_str(), target.c_str()) != 0) {
                    note(problems, "cannot put back " + file->name, errno);
                }
                continue;
            }
            if (::unlink(target.c_str()) != 0 && errno != ENOENT) {
                note(problems, "cannot remove " + file->name, errno);
            }
        }
        // The name holds another's file now (or never held ours): the backup is nobody's.
        if (::unlink(former.c_str()) != 0 && errno != ENOENT) {
            note(problems, "cannot remove " + former.string(), errno);
        }
    }
    return problems;
}

// Lets go of what a set replaced. False when a backup could not be removed.
bool keep(const fs::path& directory, const std::vector<FusionBatch::File>& files)
{
    bool whole = true;
    for (const auto& file : files) {
        for (const auto& hidden : {file.staged, file.former}) {
            if (::unlink((directory / hidden).c_str()) != 0 && errno != ENOENT) {
                whole = false;
            }
        }
    }
    return whole;
}

// With the folder locked: whatever hidden file is there belongs to a run that died.
void recoverLocked(int folder, const fs::path& directory, std::chrono::seconds age)
{
    std::vector<fs::path> records;
    std::vector<fs::path> others;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (!isOurs(name)) {
            continue;
        }
        (name.ends_with(kUndo) || name.ends_with(kKeep) ? records : others).push_back(entry->path());
    }
    bool changed = false;
    for (const auto& record : records) {
        const auto files = readPublicationRecord(record);
        const bool done = !files || (record.string().ends_with(kKeep) ? keep(directory, *files) : undo(directory, *files).empty());
        if (done) {
            ::unlink(record.c_str());
        }
        changed = true;
    }
    const auto now = std::chrono::system_clock::now();
    for (const auto& other : others) {
        struct stat status {};
        if (::lstat(other.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            continue;
        }
        if (now - std::chrono::system_clock::from_time_t(status.st_ctim.tv_sec) >= age) {
            changed = ::unlink(other.c_str()) == 0 || changed;
        }
    }
    if (changed) {
        ::fsync(folder);
    }
}

std::string randomTag()
{
    std::random_device random;
    return std::to_string(::getpid()) + "-" + std::to_string(random()) + std::to_string(random());
}

} // namespace

FusionBatch::FusionBatch(fs::path directory, PublishObserver observer)
    : m_directory(std::move(directory))
    , m_observer(std::move(observer))
    , m_base(std::string(kHiddenPrefix) + randomTag())
{
}

FusionBatch::~FusionBatch()
{
    if (!m_done) {
        rollback();
    }
    if (m_folder >= 0) {
        ::close(m_folder);
    }
}

void FusionBatch::lock()
{
    Descriptor folder = openDirectory(m_directory);
    lockDirectory(folder.get(), true);
    recoverLocked(folder.get(), m_directory, std::chrono::seconds(0));
    m_folder = folder.release();
    if (m_observer) {
        m_observer(PublishStep::Locked, 0);
    }
}

void FusionBatch::stage(const std::string& name, std::string_view bytes)
{
    if (m_folder < 0) {
        lock();
    }
    const std::string number = std::to_string(m_files.size());
    File file{name, m_base + "-" + number + ".part", m_base + "-" + number + ".old"};
    const fs::path staged = m_directory / file.staged;
    // O_EXCL: the name is ours alone; 0666 lets the umask decide who else may read.
    Descriptor out(::open(staged.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (out.get() < 0) {
        throwSystemError(errno, [&] { return "cannot write " + name + " in " + m_directory.string(); });
    }
    const auto failed = [&](int error) {
        ::unlink(staged.c_str());
        return std::system_error(error, std::generic_category(), "cannot write " + name + " in " + m_directory.string());
    };
    if (const int error = files::writeWhole(out.get(), bytes)) {
        throw failed(error);
    }
    struct stat status {};
    if (::fstat(out.get(), &status) != 0) {
        throw failed(errno);
    }
    file.device = status.st_dev;
    file.inode = status.st_ino;
    if (const int error = out.close()) {
        throw failed(error);
    }
    m_files.push_back(std::move(file));
}

void FusionBatch::writeRecord()
{
    const std::string text = publicationRecord(m_files);
    const fs::path writing = m_directory / (m_base + std::string(kWriting));
    Descriptor out(::open(writing.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (out.get() < 0) {
        throwSystemError(errno, [&] { return "cannot record the publication in " + m_directory.string(); });
    }
    int error = files::writeWhole(out.get(), text);
    if (error == 0 && ::fdatasync(out.get()) != 0) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(writing.c_str());
        throwSystemError(error, [&] { return "cannot record the publication in " + m_directory.string(); });
    }
    out.close();
    const std::string record = m_base + std::string(kUndo);
    if (::rename(writing.c_str(), (m_directory / record).c_str()) != 0) {
        const int error = errno;
        ::unlink(writing.c_str());
        throwSystemError(error, [&] { return "cannot record the publication in " + m_directory.string(); });
    }
    m_record = record;
    syncDirectory(m_folder, m_directory);
}

void FusionBatch::moveRecord(std::string_view state)
{
    const std::string record = m_base + std::string(state);
    if (::rename((m_directory / m_record).c_str(), (m_directory / record).c_str()) != 0) {
        throwSystemError(errno, [&] { return "cannot record the publication in " + m_directory.string(); });
    }
    m_record = record;
    syncDirectory(m_folder, m_directory);
}

void FusionBatch::publish()
{
    if (m_files.empty()) {
        return;
    }
    // One pass for all files: the journal commits once, where an fdatasync
    // per file would commit it once per file.
    if (::syncfs(m_folder) != 0) {
        throwSystemError(errno, [&] { return "cannot write the files in " + m_directory.string(); });
    }
    if (m_observer) {
        m_observer(PublishStep::Staged, 0);
    }
    // Named before the first rename, so that a run that dies midway is undone by the next.
    writeRecord();
    std::size_t index = 0;
    for (const File& file : m_files) {
        const fs::path target = m_directory / file.name;
        // Keep the file being replaced under a hidden name, for a rollback.
        if (::link(target.c_str(), (m_directory / file.former).c_str()) != 0 && errno != ENOENT) {
            throwSystemError(errno, [&] { return "cannot replace " + file.name; });
        }
        if (::rename((m_directory / file.staged).c_str(), target.c_str()) != 0) {
            throwSystemError(errno, [&] { return "cannot write " + file.name; });
        }
        if (m_observer) {
            m_observer(PublishStep::Renamed, ++index);
        }
    }
    syncDirectory(m_folder, m_directory);
    moveRecord(kKeep);
    if (m_observer) {
        m_observer(PublishStep::Published, m_files.size());
    }
}

void FusionBatch::commit() noexcept
{
    if (m_done) {
        return;
    }
    m_done = true;
    if (keep(m_directory, m_files) && !m_record.empty()) {
        ::unlink((m_directory / m_record).c_str());
    }
    if (m_folder >= 0) {
        ::close(m_folder);
        m_folder = -1;
    }
}

std::string FusionBatch::rollback() noexcept
{
    if (m_done) {
        return {};
    }
    m_done = true;
    std::string problems;
    try {
        if (m_record.ends_with(kKeep)) {
            // Should this process die while undoing, the next run goes on undoing.
            moveRecord(kUndo);
        }
        problems = undo(m_directory, m_files);
        if (problems.empty() && !m_record.empty()) {
            ::unlink((m_directory / m_record).c_str());
        }
        if (m_folder >= 0) {
            syncDirectory(m_folder, m_directory);
        }
    } catch (const std::exception& error) {
        problems += (problems.empty() ? "" : "; ") + std::string(error.what());
    }
    if (m_folder >= 0) {
        ::close(m_folder);
        m_folder = -1;
    }
    return problems.empty() ? std::string() : "FUSION could not be put back as it was (" + problems + ")";
}

void recoverPublications(const fs::path& directory, bool wait)
{
    if (!present(directory)) {
        return;
    }
    const Descriptor folder = openDirectory(directory);
    if (lockDirectory(folder.get(), wait)) {
        recoverLocked(folder.get(), directory, std::chrono::seconds(0));
    }
}

void sweepLeftovers(const fs::path& directory, std::chrono::seconds age)
{
    try {
        if (!present(directory)) {
            return;
        }
        const Descriptor folder = openDirectory(directory);
        if (lockDirectory(folder.get(), false)) {
            recoverLocked(folder.get(), directory, age);
        }
    } catch (const std::exception&) {
        // The command itself then says what is wrong with the folder.
    }
}

} // namespace server

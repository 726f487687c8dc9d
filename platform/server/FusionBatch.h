#pragma once

// The files of one run of a server command, published into FUSION as one set.
//
// A run holds the folder's lock (flock(2) on the folder itself) from its first
// staged file to its end, so runs of several workers or workstations on one
// folder publish one after the other and never undo each other's files. Under
// the lock, every file is first written whole under a hidden name of its own,
// then all of them are made durable by one sync of the file system, then a
// publication record (a hidden file in the folder) names the set: each file's
// final name, hidden name, the hidden name that will keep the file it
// replaces, and its identity (device and inode). Then each file is renamed over
// its final name, keeping a hard link to the file it replaces, the folder is
// synced, and the record is marked published.
//
// commit() lets the replaced files go and removes the record. rollback() (or
// the destructor, until commit) puts back what FUSION held before, but only
// under names that still hold this run's own file: a file that another writer
// put there since stays as it is.
//
// A run that dies leaves its record and its hidden files. The next one to take
// the lock (the next run, or recoverPublications) undoes a set whose renaming
// was not finished and completes one whose files were all in place, so that
// FUSION holds either the earlier files or the whole new set, never a mix, and
// removes every hidden file of the dead run.
//
// Files get the mode 0666 less the process's umask, like any file the user
// creates, so a folder shared with a group stays readable by the group. The
// lock is the kernel's: held by an open descriptor, released when the run's
// process ends however it ends. It serialises runs on one host (a folder on a
// local file system, as FUSION is on the host of its workers).

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace server {

// Points of a publication, reported to a test's observer so that it can stop
// the process there and look at what a crash would leave.
enum class PublishStep {
    Locked,    // the folder's lock taken, dead runs recovered, nothing written yet
    Staged,    // every file written and durable, none renamed yet
    Renamed,   // one more file renamed into place (index: how many so far)
    Published, // every file in place and the record marked so (index: how many)
};
using PublishObserver = std::function<void(PublishStep step, std::size_t index)>;

class FusionBatch {
public:
    explicit FusionBatch(std::filesystem::path directory, PublishObserver observer = {});
    FusionBatch(const FusionBatch&) = delete;
    FusionBatch& operator=(const FusionBatch&) = delete;
    ~FusionBatch();

    // Writes bytes as the future file name (a plain file name, no folder). The
    // first call waits for the folder's lock and recovers the publications of
    // dead runs. Throws std::runtime_error "cannot write NAME in DIR: <reason>"
    // ("cannot open DIR: <reason>" when the folder cannot be opened).
    void stage(const std::string& name, std::string_view bytes);

    // Makes the staged files durable, records the set, then renames them into
    // place and syncs the folder. Throws std::runtime_error; what was published
    // so far stays until rollback() or the destructor.
    void publish();

    // The run succeeded: the replaced files are let go and the lock released.
    // A backup that cannot be removed leaves the record for the next run to finish.
    void commit() noexcept;

    // Puts FUSION back as it was before publish(), name by name where the name
    // still holds this run's file, and releases the lock; idempotent. Gives what
    // could not be put back, "" when everything was (the record then stays, and
    // the next run tries again).
    std::string rollback() noexcept;

    std::size_t size() const { return m_files.size(); }

    // One file of the set, as the record holds it.
    struct File {
        std::string name;   // the final name
        std::string staged; // hidden name it is written under
        std::string former; // hidden name for the file it replaces
        dev_t device = 0;   // the written file's identity, which renaming keeps
        ino_t inode = 0;
    };

private:
    void lock();
    void writeRecord();
    void moveRecord(std::string_view state);

    std::filesystem::path m_directory;
    PublishObserver m_observer;
    std::vector<File> m_files;
    int m_folder = -1; // the folder, open and locked, from the first stage() to the end
    std::string m_base;   // this run's hidden names start with it
    std::string m_record; // the record's current hidden name; empty before publish()
    bool m_done = false;
};

// Completes or undoes the publications of runs that died in directory and
// removes their hidden files. Waits for a run in progress when wait is true;
// otherwise does nothing while one holds the folder. Throws std::runtime_error
// when the folder cannot be opened (a missing folder has nothing to recover).
void recoverPublications(const std::filesystem::path& directory, bool wait = true);

// recoverPublications(directory, false), for a command's start: hidden files of
// runs that died (by their change time older than age) go, and sets that a dead
// run left half renamed are completed or undone. Never throws.
void sweepLeftovers(const std::filesystem::path& directory, std::chrono::seconds age);

} // namespace server

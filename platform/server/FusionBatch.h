#pragma once

// The files of one run of a server command, published into FUSION as one
// transaction.
//
// Every file is first written whole under a hidden name of its own (exclusive
// creation, so no other process can take it), then all of them are made durable
// by one sync of the file system, then each is renamed over its final name,
// keeping a hard link to the file it replaces, and the folder is synced. Until
// commit(), the destructor (or rollback()) puts back exactly what FUSION held
// before: the replaced files under their names, no new file, no hidden file.
// After a crash at any point FUSION holds whole files only (the hidden staging
// files of a dead run are swept by a later run, see sweepLeftovers()).
//
// Files get the mode 0666 less the process's umask, like any file the user
// creates, so a folder shared with a group stays readable by the group.

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace server {

// Points of a publication, reported to a test's observer so that it can stop
// the process there and look at what a crash would leave.
enum class PublishStep {
    Staged,   // every file written and durable, none renamed yet
    Renamed,  // one more file renamed into place (index: how many so far)
};
using PublishObserver = std::function<void(PublishStep step, std::size_t index)>;

class FusionBatch {
public:
    explicit FusionBatch(std::filesystem::path directory, PublishObserver observer = {});
    FusionBatch(const FusionBatch&) = delete;
    FusionBatch& operator=(const FusionBatch&) = delete;
    ~FusionBatch();

    // Writes bytes as the future file name (a plain file name, no folder).
    // Throws std::runtime_error "cannot write NAME: <the system's reason>".
    void stage(const std::string& name, std::string_view bytes);

    // Makes the staged files durable, then renames them into place and syncs
    // the folder. Throws std::runtime_error; what was published so far stays
    // until rollback() or the destructor.
    void publish();

    // The run succeeded: the replaced files are let go.
    void commit();

    // Puts FUSION back as it was before publish(); idempotent.
    void rollback() noexcept;

    std::size_t size() const { return m_files.size(); }

private:
    struct File {
        std::string name;
        std::filesystem::path staged;
        std::filesystem::path former;  // hard link to the file replaced; empty when there was none
        bool published = false;
    };

    std::filesystem::path hiddenName(std::string_view kind);
    void syncDirectory() const;

    std::filesystem::path m_directory;
    PublishObserver m_observer;
    std::vector<File> m_files;
    bool m_done = false;
    unsigned m_counter = 0;
};

// Removes hidden staging and backup files that runs which died left in
// directory, when they are older than age (by their change time, which linking
// and writing both set, so a live run's files are never taken).
void sweepLeftovers(const std::filesystem::path& directory, std::chrono::seconds age);

} // namespace server

// The publication of a set of files into FUSION: whole or not at all whatever
// kills the run, rollbacks that touch only the run's own files, and runs on one
// folder that never undo each other's.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include <QTemporaryDir>

#include "FusionBatch.h"

namespace fs = std::filesystem;

namespace {

using Listing = std::map<std::string, std::string>; // every file of the folder, hidden ones too: name -> contents

Listing listing(const fs::path& directory)
{
    Listing files;
    for (const auto& entry : fs::directory_iterator(directory)) {
        if (entry.is_directory()) {
            files[entry.path().filename().string()] = "<folder>";
            continue;
        }
        std::ifstream in(entry.path(), std::ios::binary);
        files[entry.path().filename().string()] = std::string(std::istreambuf_iterator<char>(in), {});
    }
    return files;
}

void write(const fs::path& file, const std::string& text)
{
    std::ofstream(file, std::ios::binary) << text;
}

// A run's set: 300 files, the names shifted by 7 each run so that a set shares
// most names with the one before and has some of its own.
Listing generation(int number)
{
    Listing files;
    for (int i = 0; i < 300; ++i) {
        files["001P_202611_" + std::to_string(number * 7 + i) + ".pdf"] = "run " + std::to_string(number) + " file " + std::to_string(i);
    }
    return files;
}

// What FUSION holds once the set is published over the one before: the earlier
// files of names the new set does not have stay.
Listing over(Listing earlier, const Listing& set)
{
    for (const auto& [name, text] : set) {
        earlier[name] = text;
    }
    return earlier;
}

void publish(const fs::path& directory, const Listing& set, const server::PublishObserver& observer = {})
{
    server::FusionBatch batch(directory, observer);
    for (const auto& [name, text] : set) {
        batch.stage(name, text);
    }
    batch.publish();
    batch.commit();
}

class Publication : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }
    fs::path folder() const { return fs::path(m_dir.path().toStdString()); }
    QTemporaryDir m_dir;
};

} // namespace

// The process is killed at random moments of publishing 300 files over 300
// others: once the next program has looked at the folder, it holds exactly the
// earlier files or exactly the new ones, no hidden file, and the next run succeeds.
TEST_F(Publication, KilledAtRandomMomentsLeavesTheEarlierOrTheNewSet)
{
    Listing current = over({{"other.pdf", "not ours"}}, generation(0));
    write(folder() / "other.pdf", "not ours");
    // One run undisturbed, to know how long the two halves take: writing, and renaming.
    std::chrono::steady_clock::time_point locked;
    std::chrono::steady_clock::time_point staged;
    publish(folder(), generation(0), [&](server::PublishStep step, std::size_t) {
        if (step == server::PublishStep::Locked) {
            locked = std::chrono::steady_clock::now();
        } else if (step == server::PublishStep::Staged) {
            staged = std::chrono::steady_clock::now();
        }
    });
    const auto end = std::chrono::steady_clock::now();
    ASSERT_EQ(listing(folder()), current);
    const auto writing = std::chrono::duration_cast<std::chrono::microseconds>(staged - locked);
    const auto renaming = std::chrono::duration_cast<std::chrono::microseconds>(end - staged);

    std::mt19937 random(20261125);
    int earlier = 0;
    int whole = 0;
    int finished = 0;
    int run = 1;
    for (int kill = 0; kill < 40; ++kill, run += 2) {
        const Listing next = over(current, generation(run));
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        // Every other kill lands while the files are written, the others while they are renamed.
        const bool whileRenaming = kill % 2 == 1;
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(ready[0]);
            publish(folder(), generation(run), [&](server::PublishStep step, std::size_t) {
                if (step == (whileRenaming ? server::PublishStep::Staged : server::PublishStep::Locked)) {
                    const char byte = 1;
                    (void)!::write(ready[1], &byte, 1);
                }
            });
            ::_exit(0);
        }
        ::close(ready[1]);
        char byte = 0;
        ASSERT_EQ(::read(ready[0], &byte, 1), 1);
        ::close(ready[0]);
        const auto span = (whileRenaming ? renaming : writing + renaming) * 5 / 4;
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<std::int64_t>(0, span.count())(random)));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        finished += WIFEXITED(status) ? 1 : 0;

        server::recoverPublications(folder());
        const Listing after = listing(folder());
        if (after == current) {
            ++earlier;
        } else {
            ASSERT_EQ(after, next) << "kill " << kill << ": neither the earlier set nor the new one";
            ++whole;
        }
        // The next run, undisturbed.
        current = over(after, generation(run + 1));
        publish(folder(), generation(run + 1));
        ASSERT_EQ(listing(folder()), current) << "the run after kill " << kill;
    }
    std::cout << "40 kills: " << earlier << " left the earlier set, " << whole << " the new one (" << finished
              << " of them had finished); writing " << writing.count() << " us, renaming " << renaming.count() << " us\n";
}

// A rollback puts back only names that still hold the run's own file: one that
// another writer replaced, or removed, since stays so.
TEST_F(Publication, RollbackTouchesOnlyItsOwnFiles)
{
    write(folder() / "a.pdf", "earlier a");
    write(folder() / "b.pdf", "earlier b");
    server::FusionBatch batch(folder());
    for (const char* name : {"a.pdf", "b.pdf", "c.pdf", "d.pdf"}) {
        batch.stage(name, "new");
    }
    batch.publish();
    write(folder() / "b.tmp", "another's");
    fs::rename(folder() / "b.tmp", folder() / "b.pdf");
    write(folder() / "c.tmp", "another's");
    fs::rename(folder() / "c.tmp", folder() / "c.pdf");
    fs::remove(folder() / "d.pdf");
    EXPECT_EQ(batch.rollback(), "");
    EXPECT_EQ(listing(folder()), (Listing{{"a.pdf", "earlier a"}, {"b.pdf", "another's"}, {"c.pdf", "another's"}}));
    EXPECT_EQ(batch.rollback(), "");
}

// Renaming that fails midway, after files of the set are in place, leaves the folder as it was.
TEST_F(Publication, FailureMidwayLeavesTheFolderAsItWas)
{
    write(folder() / "a.pdf", "earlier a");
    fs::create_directory(folder() / "b.pdf"); // a name that no file can replace
    const Listing before = listing(folder());
    {
        server::FusionBatch batch(folder());
        batch.stage("a.pdf", "new");
        batch.stage("b.pdf", "new");
        batch.stage("c.pdf", "new");
        EXPECT_THROW(batch.publish(), std::runtime_error);
    }
    EXPECT_EQ(listing(folder()), before);
    {
        server::FusionBatch batch(folder());
        batch.stage("a.pdf", "new");
        batch.stage("missing/name.pdf", "new"); // renamed into no folder
        EXPECT_THROW(batch.publish(), std::runtime_error);
    }
    EXPECT_EQ(listing(folder()), before);
}

// A record left by a dead run whose files were all in place keeps them; names
// that cannot be written in one line of the record survive it.
TEST_F(Publication, ADeadRunWithEverythingInPlaceKeepsItsSet)
{
    const std::string odd = "tab\there%0Aline\nend.pdf";
    write(folder() / odd, "earlier");
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        publish(folder(), {{odd, "new"}, {"plain.pdf", "new"}}, [](server::PublishStep step, std::size_t) {
            if (step == server::PublishStep::Published) {
                ::raise(SIGKILL);
            }
        });
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_GT(listing(folder()).size(), 2u); // the record and the backup
    server::recoverPublications(folder());
    EXPECT_EQ(listing(folder()), (Listing{{odd, "new"}, {"plain.pdf", "new"}}));
}

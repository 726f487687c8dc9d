#pragma once

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "EventLog.h"
#include "Gestures.h"
#include "Lexer.h"
#include "LoggingDatabase.h"
#include "ScratchSchema.h"
#include "ScriptHost.h"
#include "Store.h"
#include "shell/Ctr_Calvarine.h"

namespace script {

struct Options {
    // The FUSION directory to use instead of a fresh temporary one.
    std::optional<std::filesystem::path> fusion;
    // A PostgreSQL server to play against instead of SQLite: a fresh schema per file.
    std::optional<std::string> dbUrl;
    // An existing database (file or URI) that every file plays on as a workstation
    // would: nothing is created or cleared, FUSION is the database's own, and on a
    // server the workers (calvarine-server) run the commands.
    std::optional<std::string> db;
    // Paper runs go through the real printing control, as PDF files in this folder.
    std::optional<std::filesystem::path> printTo;
    // Play the operator through the widgets of the real window (--view qt).
    bool widgets = false;
    // After a message of a graphic run that does not hold as it stands (files
    // listed that were not made, a failure with a known cause), queue the
    // desktop's note as the event NOTE "TEXT" (--notes).
    bool notes = false;
};

// Counts over all files.
struct Tally {
    int passed = 0;
    int failed = 0;
    bool broken = false; // a file could not be read or held a bad command
};

// The file in a FUSION folder given with --fusion where the host lists what
// its scenarios wrote there; the expectations never see it.
inline constexpr const char* kFusionLedger = ".calvarine-script";
// Takes a FUSION folder for a scenario: makes it if missing, removes what
// earlier scenarios wrote there, and refuses (throws) a folder holding any
// file the host did not write. noteFusion lists what a scenario left.
void claimFusion(const std::filesystem::path& dir);
void noteFusion(const std::filesystem::path& dir);

// A directory made for one scenario and removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const noexcept { return m_path; }

private:
    std::filesystem::path m_path;
};

// One scenario file played from its first line to its last: a fresh database,
// event log and FUSION directory, and a control created before the first line.
// Failed expectations are written to out as "FILE:LINE: expected ..., got ...".
class Session {
public:
    Session(std::filesystem::path file, const Options& options, std::ostream& out);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Plays the file, adding its counts to tally.
    void run(Tally& tally);
    // Plays one line of a scenario as line lineNumber of the file, adding its
    // counts to tally; false when the scenario cannot go on (a bad command, a
    // fixture that cannot be read), which is reported on out.
    bool play(std::string_view line, std::size_t lineNumber, Tally& tally);

    // One reading of everything a scenario can expect: subject is what follows
    // "expect" (Txt_Tri.Text, focus, Tab_Cles, record TEMPO "KEY", ...), value
    // is written as an expectation writes it; events are read as the list of
    // their lines. weight counts the values it holds (a list's entries).
    struct Reading {
        std::string subject;
        std::string value;
        std::size_t weight = 1;
        bool operator==(const Reading&) const = default;
    };
    // Reads every property of every control through the pass's gestures, the
    // members, the events queued since the last reading (taken off the queue),
    // the records of TEMPO, the FUSION folder and W_Sortir (Readings.cpp).
    std::vector<Reading> readEverything();
    // The screen model behind the pass (what an explorer draws its next step from).
    ScreenModel& screen() const { return m_control->Controls(); }

private:
    using Command = void (Session::*)(LineReader&);
    static const std::unordered_map<std::string_view, Command>& commands();

    // Data.
    void fixture(LineReader& r);
    void load(LineReader& r);
    void remove(LineReader& r);
    // Host.
    void rights(LineReader& r);
    void host(LineReader& r);
    void server(LineReader& r);
    void init(LineReader& r);
    void call(LineReader& r);
    void set(LineReader& r);
    void close(LineReader& r);
    void log(LineReader& r);
    // Operator.
    void focus(LineReader& r);
    void blur(LineReader& r);
    void type(LineReader& r);
    void key(LineReader& r);
    void selectall(LineReader& r);
    void paste(LineReader& r);
    void pick(LineReader& r);
    void click(LineReader& r);
    void dblclick(LineReader& r);
    void drag(LineReader& r);
    void mousedown(LineReader& r);
    void menu(LineReader& r);
    // Expectations.
    void expect(LineReader& r);
    void clear(LineReader& r);

    void expectEvent(LineReader& r);
    void expectProperty(const std::string& subject, LineReader& r);

    // A control of the screen by name (UserControl only when allowed).
    Control& control(const std::string& name, bool userControl = false) const;
    // Whether the operator may act on these controls now; if not, the action is
    // refused and REFUSED is queued. Any action that goes ahead closes a pop-up.
    bool operatorMay(std::initializer_list<const Control*> controls, bool menu = false);
    // An entry index the list really has, or a failed expectation.
    bool hasEntry(Control& list, std::int64_t index);
    // The host calls a member of the control; a failure becomes ERROR name:.
    template <class Call>
    void hostCall(const char* name, Call&& call);
    // After control code ran: a form the control unloaded is destroyed.
    void settle();
    void terminateControl();
    // Counts one expectation.
    void check(bool ok, const std::string& expected, const std::string& got);

    std::filesystem::path m_file;
    std::ostream& m_out;
    std::size_t m_lineNumber = 0;
    std::string_view m_line;
    Tally* m_tally = nullptr;

    TempDir m_dir;
    std::optional<store::ScratchSchema> m_schema;
    std::optional<TempDir> m_ownFusion;
    std::filesystem::path m_fusion;
    bool m_claimedFusion = false;
    std::shared_ptr<EventLog> m_events;
    std::shared_ptr<store::Store> m_store;
    std::shared_ptr<LoggingDatabase> m_database;
    std::shared_ptr<DbaClient> m_client;
    ScriptHost m_host;
    std::unique_ptr<Ctr_Calvarine> m_control;
    std::unique_ptr<Gestures> m_gestures; // goes before the control it acts on

    std::int32_t m_level = 2;
    bool m_giveDatabase = true;
    bool m_giveClient = true;
    bool m_giveRights = true;
};

} // namespace script

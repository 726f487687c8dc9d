#include "Session.h"

#include "ReissueOutcome.h"
#include "WatchedDatabase.h"
#include "reissue/GraphicFilesMessage.h"

#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <iostream>
#include <system_error>

#include "Fixtures.h"
#include "PaperSibling.h"
#include "Rights.h"
#include "ServerCommands.h"
#include "Text.h"
#include "shell/Procedure.h"
#include "shell/Variable.h"

namespace script {

namespace {

// Each file plays as if in a fresh process: module Variable starts empty.
void resetModuleVariable()
{
    Procedure::FermerFichiers();
    Variable::TheClient.reset();
    Variable::AideEnLigne.reset();
    Variable::B_Edition = false;
}

using Method = void (Ctr_Calvarine::*)();

const std::unordered_map<std::string_view, Method>& publicMethods()
{
    static const std::unordered_map<std::string_view, Method> methods{
        {"Init", &Ctr_Calvarine::Init},
        {"Masquer_Depart", &Ctr_Calvarine::Masquer_Depart},
        {"Afficher", &Ctr_Calvarine::Afficher},
        {"Remplir_Combo_Entite", &Ctr_Calvarine::Remplir_Combo_Entite},
        {"Vider_Champs", &Ctr_Calvarine::Vider_Champs},
        {"Remplir_Combo_Periode", &Ctr_Calvarine::Remplir_Combo_Periode},
        {"Afficher_Activite", &Ctr_Calvarine::Afficher_Activite},
        {"Requete_Liste", &Ctr_Calvarine::Requete_Liste},
        {"Passage_A_Gauche", &Ctr_Calvarine::Passage_A_Gauche},
        {"Passage_A_Droite", &Ctr_Calvarine::Passage_A_Droite},
        {"PickExe", &Ctr_Calvarine::PickExe},
        {"Remplir_Liste_Filtre", &Ctr_Calvarine::Remplir_Liste_Filtre},
    };
    return methods;
}

} // namespace

// A FUSION folder given with --fusion is the host's only if it made it: it
// keeps there the list of the files its scenarios wrote, and removes those
// alone before the next file. A folder holding anything else is refused. The
// list is a file anyone who may write the folder can change: it names plain
// files of the folder only (no other folder, no link, no subfolder), and a
// list that names anything else refuses the folder before anything is removed.
namespace {

namespace fs = std::filesystem;

[[noreturn]] void refuse(const fs::path& dir, const std::string& why)
{
    throw std::runtime_error("the FUSION folder " + dir.string() + " " + why + ": give an empty or a new folder");
}

bool isPlainFile(const fs::path& path)
{
    std::error_code ec;
    return fs::symlink_status(path, ec).type() == fs::file_type::regular;
}

bool isOwnName(const std::string& name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos && name != kFusionLedger;
}

std::set<std::string> fusionFilesWritten(const fs::path& dir)
{
    std::error_code ec;
    const auto ledger = fs::symlink_status(dir / kFusionLedger, ec).type();
    if (ledger == fs::file_type::not_found) {
        return {};
    }
    if (ledger != fs::file_type::regular) {
        refuse(dir, std::string("holds ") + kFusionLedger + ", which is not a plain file");
    }
    std::set<std::string> names;
    std::ifstream in(dir / kFusionLedger);
    for (std::string name; std::getline(in, name);) {
        if (name.empty()) {
            continue;
        }
        if (!isOwnName(name)) {
            refuse(dir, std::string("has a list ") + kFusionLedger + " naming \"" + name + "\", which is not a file of the folder");
        }
        names.insert(name);
    }
    return names;
}

} // namespace

void claimFusion(const std::filesystem::path& dir)
{
    fs::create_directories(dir);
    const std::set<std::string> ours = fusionFilesWritten(dir);
    std::vector<std::string> foreign;
    for (const auto& entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (name != kFusionLedger && !(ours.contains(name) && isPlainFile(entry.path()))) {
            foreign.push_back(name);
        }
    }
    if (!foreign.empty()) {
        std::sort(foreign.begin(), foreign.end());
        std::string names;
        for (const auto& name : foreign) {
            names += (names.empty() ? "" : ", ") + name;
        }
        refuse(dir, "holds files that calvarine-script did not write (" + names + ")");
    }
    for (const auto& name : ours) {
        std::error_code ec;
        fs::remove(dir / name, ec);
    }
    std::ofstream(dir / kFusionLedger, std::ios::trunc);
}

void noteFusion(const std::filesystem::path& dir)
{
    std::error_code ec;
    std::set<std::string> names;
    try {
        names = fusionFilesWritten(dir);
    } catch (const std::exception&) {
        return; // changed by someone else meanwhile: the next claim refuses the folder
    }
    for (const auto& entry : fs::directory_iterator(dir, ec)) {
        const std::string name = entry.path().filename().string();
        if (isOwnName(name) && name.find('\n') == std::string::npos && isPlainFile(entry.path())) {
            names.insert(name);
        }
    }
    std::ofstream out(dir / kFusionLedger, std::ios::trunc);
    for (const auto& name : names) {
        out << name << '\n';
    }
}

TempDir::TempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "calvarine-script-XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
        throw std::system_error(errno, std::generic_category(), "cannot make a temporary directory");
    }
    m_path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

Session::Session(std::filesystem::path file, const Options& options, std::ostream& out)
    : m_file(std::move(file))
    , m_out(out)
    , m_events(std::make_shared<EventLog>())
    , m_host(m_events)
{
    resetModuleVariable();
    if (options.db) {
        // A workstation on a shared database: its own session (TEMPO's records are
        // this process's alone), the database's FUSION, which other processes
        // write too, so nothing in it is ever removed here.
        m_store = store::Store::connect(*options.db);
        m_fusion = m_store->fusionDirectory();
    } else {
        if (options.fusion) {
            m_fusion = *options.fusion;
            claimFusion(m_fusion);
            m_claimedFusion = true;
        } else {
            m_ownFusion.emplace();
            m_fusion = m_ownFusion->path();
        }
        if (options.dbUrl) {
            m_schema.emplace(*options.dbUrl);
            m_store = store::Store::connect(m_schema->connection());
            // No worker runs beside the host: Execute serves the queue itself.
            store::serveOwnCommands(*m_store);
        } else {
            m_store = store::Store::create(m_dir.path() / "db.sqlite");
        }
        m_store->setFusionDirectory(m_fusion);
    }
    registerServerCommands(*m_store);
    m_client = std::make_shared<DbaClient>("OPERATEUR");
    m_store->setClient(m_client);
    // The control gets the logging decorator from the start, so that logging can
    // be switched on at any line.
    auto watched = std::make_shared<outcome::WatchedDatabase>(m_store);
    m_database = std::make_shared<LoggingDatabase>(watched, m_events);
    if (options.notes) {
        m_host.setNoteFor([this, watched](const std::string& text, int style, const std::string& title) {
            const auto told = reissue::readGraphicMessage(text, style, title);
            return told ? outcome::reissueNote(*told, watched->exchange(), m_store->path().empty() ? std::filesystem::path() : m_fusion)
                        : std::string();
        });
    }

    m_control = std::make_unique<Ctr_Calvarine>(m_host);
    if (options.printTo) {
        m_control->Controls().get("Ctr_Belmontis1").setObject(makeSpoolingSibling(m_host, *options.printTo, m_store));
    } else {
        m_control->Controls().get("Ctr_Belmontis1").setObject(std::make_shared<BelmontisRecorder>(m_events));
    }
    if (options.widgets) {
        m_gestures = makeWidgetGestures(m_control->Controls(), m_host);
    } else {
        m_gestures = std::make_unique<Gestures>(m_control->Controls(), m_host);
    }
}

Session::~Session()
{
    if (m_claimedFusion) {
        noteFusion(m_fusion);
    }
    m_gestures.reset();
    m_control.reset();
    resetModuleVariable();
}

const std::unordered_map<std::string_view, Session::Command>& Session::commands()
{
    static const std::unordered_map<std::string_view, Command> table{
        {"fixture", &Session::fixture},
        {"load", &Session::load},
        {"delete", &Session::remove},
        {"rights", &Session::rights},
        {"host", &Session::host},
        {"server", &Session::server},
        {"init", &Session::init},
        {"call", &Session::call},
        {"set", &Session::set},
        {"close", &Session::close},
        {"log", &Session::log},
        {"focus", &Session::focus},
        {"blur", &Session::blur},
        {"type", &Session::type},
        {"key", &Session::key},
        {"selectall", &Session::selectall},
        {"paste", &Session::paste},
        {"pick", &Session::pick},
        {"click", &Session::click},
        {"dblclick", &Session::dblclick},
        {"drag", &Session::drag},
        {"mousedown", &Session::mousedown},
        {"menu", &Session::menu},
        {"expect", &Session::expect},
        {"clear", &Session::clear},
    };
    return table;
}

void Session::run(Tally& tally)
{
    std::ifstream in(m_file, std::ios::binary);
    if (!in) {
        m_out << m_file.string() << ": cannot read the file\n";
        tally.broken = true;
        return;
    }
    std::string line;
    for (std::size_t number = 1; std::getline(in, line); ++number) {
        if (!play(line, number, tally)) {
            return;
        }
    }
}

bool Session::play(std::string_view text, std::size_t lineNumber, Tally& tally)
{
    m_tally = &tally;
    m_lineNumber = lineNumber;
    m_line = trimmed(text);
    if (m_line.empty() || m_line.front() == '#') {
        return true;
    }
    try {
        LineReader reader(m_line);
        const std::string name = reader.word();
        const auto it = commands().find(name);
        if (it == commands().end()) {
            throw BadCommand("unknown command " + name);
        }
        (this->*(it->second))(reader);
    } catch (const BadCommand& e) {
        m_out << m_file.string() << ':' << m_lineNumber << ": bad command\n";
        std::cerr << m_file.string() << ':' << m_lineNumber << ": " << e.what() << '\n';
        tally.broken = true;
        return false;
    } catch (const std::exception& e) {
        // The scenario itself could not go on: a fixture that cannot be read,
        // a database that fails outside the control.
        m_out << m_file.string() << ':' << m_lineNumber << ": " << e.what() << '\n';
        tally.broken = true;
        return false;
    }
    return true;
}

void Session::check(bool ok, const std::string& expected, const std::string& got)
{
    if (ok) {
        ++m_tally->passed;
        return;
    }
    ++m_tally->failed;
    m_out << m_file.string() << ':' << m_lineNumber << ": expected " << expected << ", got " << got << '\n';
}

// ---- Data -------------------------------------------------------------------

void Session::fixture(LineReader& r)
{
    const std::string word = r.peek() == '"' ? r.string() : r.word();
    r.expectEnd();
    const std::filesystem::path path = m_file.parent_path() / word;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read the fixture " + path.string());
    }
    store::importJsonLines(*m_store, in, path.string());
}

void Session::load(LineReader& r)
{
    const std::string_view json = r.rest();
    if (json.empty()) {
        throw BadCommand("load needs a fixture line");
    }
    try {
        store::importJsonLine(*m_store, json, m_file.string() + ":" + std::to_string(m_lineNumber));
    } catch (const DbaError& e) {
        throw BadCommand(e.what());
    }
}

void Session::remove(LineReader& r)
{
    const std::string file = r.word();
    const std::string key = r.string();
    r.expectEnd();
    try {
        m_store->remove(file, key);
    } catch (const DbaError& e) {
        if (!e.isNoFile()) {
            throw;
        }
    }
}

// ---- Host -------------------------------------------------------------------

template <class Call>
void Session::hostCall(const char* name, Call&& call)
{
    try {
        call();
    } catch (const std::exception& e) {
        m_events->push(std::string("ERROR ") + name + ": " + e.what());
    }
    settle();
}

void Session::settle()
{
    if (m_host.takeUnloadRequest()) {
        terminateControl();
    }
}

void Session::terminateControl()
{
    if (m_control->terminated()) {
        return;
    }
    m_control->terminate();
    m_events->push("TERMINATE");
}

void Session::rights(LineReader& r)
{
    const std::int64_t level = r.integer();
    r.expectEnd();
    if (level < INT32_MIN || level > INT32_MAX) {
        throw BadCommand("level out of range");
    }
    m_level = static_cast<std::int32_t>(level);
}

void Session::host(LineReader& r)
{
    r.keyword("without");
    const std::string what = r.word();
    r.expectEnd();
    if (what == "database") {
        m_giveDatabase = false;
    } else if (what == "client") {
        m_giveClient = false;
    } else if (what == "rights") {
        m_giveRights = false;
    } else {
        throw BadCommand("host without database, client or rights");
    }
}

void Session::server(LineReader& r)
{
    const std::string state = r.word();
    r.expectEnd();
    if (state == "none") {
        m_store->unregisterCommand(kArchiveBordCaisseExcel);
    } else if (state == "ready") {
        registerServerCommands(*m_store);
    } else {
        throw BadCommand("server none or ready");
    }
}

void Session::init(LineReader& r)
{
    r.expectEnd();
    if (m_giveDatabase) {
        hostCall("TheDatabase", [&] { m_control->TheDatabase(m_database); });
    }
    if (m_giveClient) {
        hostCall("TheClient", [&] { m_control->TheClient(m_client); });
    }
    if (m_giveRights) {
        std::shared_ptr<SorbelaneDroits> rights = std::make_shared<FixedRights>(m_level);
        hostCall("DroitsUtilisateur", [&] { m_control->DroitsUtilisateur(rights); });
    }
    hostCall("Init", [&] { m_control->Init(); });
}

void Session::call(LineReader& r)
{
    const std::string name = r.word();
    r.expectEnd();
    const auto it = publicMethods().find(name);
    if (it == publicMethods().end()) {
        throw BadCommand("no public method " + name);
    }
    hostCall(it->first.data(), [&] { ((*m_control).*(it->second))(); });
}

void Session::set(LineReader& r)
{
    r.keyword("W_Sortir");
    const bool value = r.boolean();
    r.expectEnd();
    m_control->W_Sortir = value;
}

void Session::close(LineReader& r)
{
    r.expectEnd();
    terminateControl();
}

void Session::log(LineReader& r)
{
    const std::string state = r.word();
    r.expectEnd();
    if (state != "on" && state != "off") {
        throw BadCommand("log on or off");
    }
    m_database->setLogging(state == "on");
}

} // namespace script

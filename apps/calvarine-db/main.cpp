// calvarine-db: the administrator's tool for the record store.
//
// Commands open databases that exist; only create and demo make one.

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "Commands.h"
#include "Demo.h"
#include "Fixtures.h"
#include "Store.h"
#include "Terminal.h"
#include "database/FileNames.h"

namespace {

constexpr const char* kUsage = R"(usage: calvarine-db [--db PATH|URL] COMMAND [ARGUMENTS]
commands:
  create                         make a new, empty database (the screen's files)
  import [--lenient] FILE.jsonl...
                                 load fixtures, all files or nothing, checked first
  export [FILE...]               write files as JSON Lines to stdout (all when none named)
  select "SENTENCE" [--attrs "0 12"]
                                 one line per record, values separated by tabs
  check                          report every inconsistency of the database
  demo [--statements N] [--seed S] [--big-scope N]
                                 make a new demo database (ten years of statements)
  help [COMMAND]                 this text, or the details of a command
The database defaults to $XDG_DATA_HOME/calvarine/demo.db (~/.local/share when unset);
--db takes a file (or sqlite:PATH) or a PostgreSQL URI (postgresql://user@host/db).
Every command but create and demo needs a database that exists.
)";

const std::map<std::string, std::string>& commandHelp()
{
    static const std::map<std::string, std::string> help = {
        {"create", R"(usage: calvarine-db [--db PATH|URL] create
Makes a new database holding the files the screen opens (ACTIVITES, ASSOCIATION,
FACTURORG, ORGPRISECHARGE, PERIODESPAIE, TEMPO), DROITS and ARCHIVEBORDCAISSE with
its dictionary, all empty. Refuses a database that exists already.
)"},
        {"import", R"(usage: calvarine-db [--db PATH|URL] import [--lenient] FILE.jsonl...
Loads JSON Lines fixtures into an existing database, in one transaction: if any
line is refused, nothing of any file is imported. Refused, with file:line:
  - a line that is not a fixture (malformed JSON, unknown fields);
  - a line with a key and no record;
  - a statement of ARCHIVEBORDCAISSE whose key disagrees with its attributes
    (period in attribute 1, invoice number in attribute 3);
  - a statement or activity whose organisation (ORGPRISECHARGE) or entity
    (ASSOCIATION) has no record, in the database or in the files imported.
--lenient imports the last three kinds with a warning each.
Reports the records imported per file.
)"},
        {"export", R"(usage: calvarine-db [--db PATH|URL] export [FILE...]
Writes the named files (all when none is named) as JSON Lines to stdout,
dictionaries first; the output imports back as it is.
)"},
        {"select", R"(usage: calvarine-db [--db PATH|URL] select "SENTENCE" [--attrs "0 12"]
Runs a query sentence of the screen, for example
  'SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" PAR SigleOrgaArchive'
and prints one line per record: the attributes asked (0: the key), tab-separated.
)"},
        {"check", R"(usage: calvarine-db [--db PATH|URL] check
Reads every record and reports each inconsistency that import refuses: records
without attributes, statements whose key disagrees with their attributes,
organisations and entities named without a record. Ends with the count; the exit
status is 1 when there is any.
)"},
        {"demo", R"(usage: calvarine-db [--db PATH|URL] demo [--statements N] [--seed S] [--big-scope N]
Makes a new demo database: 30 entities, 152 organisations (three of them named by
statements but without a record, as happens in real archives), rights for $USER,
ADMIN and STAGIAIRE, and N statements (default 20000) over ten years; --big-scope
adds N statements to one scope (entity 001, Prestataire, current period). The
same seed gives the same data. Refuses a database that exists already.
)"},
        {"help", R"(usage: calvarine-db help [COMMAND]
)"},
    };
    return help;
}

// A mistake on the command line: said, then the usage.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::filesystem::path defaultDatabase()
{
    const char* data = std::getenv("XDG_DATA_HOME");
    std::filesystem::path base;
    if (data && *data) {
        base = data;
    } else {
        const char* home = std::getenv("HOME");
        base = std::filesystem::path(home && *home ? home : ".") / ".local" / "share";
    }
    return base / "calvarine" / "demo.db";
}

// The database as messages show it: a URI without its password.
std::string shown(const std::string& database)
{
    std::string text = std::regex_replace(database, std::regex("^(postgres(ql)?://[^:/@?]*):[^@/?]*@"), "$1@");
    return std::regex_replace(text, std::regex("([?&])password=[^&]*&?"), "$1");
}

bool isFile(const std::string& database)
{
    return !store::Store::isServerConnection(database);
}

std::filesystem::path fileOf(const std::string& database)
{
    return database.starts_with("sqlite:") ? database.substr(7) : database;
}

// An existing database; never makes one.
std::shared_ptr<store::Store> openExisting(const std::string& database)
{
    try {
        return store::Store::connect(database);
    } catch (const DbaError& error) {
        std::error_code ignored;
        if (isFile(database) && !std::filesystem::exists(fileOf(database), ignored)) {
            throw std::runtime_error(error.context() + ": " + error.detail() + " (calvarine-db create or demo makes one)");
        }
        throw;
    }
}

// A new database for command (create or demo); refuses one that exists, and
// says what the administrator can do instead: nothing is ever added to or
// written over an existing database by these two.
std::shared_ptr<store::Store> createNew(const std::string& database, const std::string& command)
{
    const std::string refusal = command + " makes a new database and never writes into an existing one: ";
    if (isFile(database)) {
        const auto file = fileOf(database).string();
        std::error_code error;
        if (std::filesystem::exists(file, error)) {
            throw std::runtime_error(file + " exists already. " + refusal + "give another path with --db, or remove " + file
                + " (with its -wal and -shm files, if any) and run " + command + " again");
        }
        return store::Store::connect(database, store::OpenMode::Create);
    }
    auto store = store::Store::connect(database, store::OpenMode::Create);
    if (store->fileExists(FileNames::ARCHIVEBORDCAISSE)) {
        throw std::runtime_error("the PostgreSQL database " + shown(database) + " holds an archive already (file ARCHIVEBORDCAISSE). "
            + refusal + "give --db another, empty database (createdb), or drop this one and create it again (dropdb, createdb)");
    }
    return store;
}

std::size_t number(const std::string& option, const std::string& text, std::size_t largest)
{
    const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || text.size() > 12 || std::stoull(text) > largest) {
        throw UsageError(option + " takes a whole number from 0 to " + std::to_string(largest) + ", not \"" + text + "\"");
    }
    return std::stoull(text);
}

// The value after an option of a command.
const std::string& valueOf(const std::vector<std::string>& args, std::size_t& i)
{
    if (i + 1 >= args.size()) {
        throw UsageError(args[i] + " needs a value");
    }
    return args[++i];
}

std::string shownValue(std::string text)
{
    // Values inside a value: subvalues shown as the scenarios write them.
    for (auto& c : text) {
        if (c == '\xFC') {
            c = '~';
        }
    }
    return text;
}

int select(const std::string& database, const std::vector<std::string>& args)
{
    std::string sentence;
    std::string attributes = "0";
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--attrs") {
            attributes = valueOf(args, i);
        } else if (args[i].starts_with("--")) {
            throw UsageError("unknown option " + args[i] + " for select");
        } else if (sentence.empty()) {
            sentence = args[i];
        } else {
            throw UsageError("select takes one sentence (quote it); \"" + args[i] + "\" is one word too many");
        }
    }
    if (sentence.empty()) {
        throw UsageError("select needs a sentence");
    }
    auto store = openExisting(database);
    const auto result = store->select(sentence, attributes);
    if (result.empty()) {
        return 0;
    }
    for (const auto attribute : splitMarks(result.text(), DbaDynArray::kAttributeMark)) {
        std::string line;
        bool first = true;
        for (const auto value : splitMarks(attribute, DbaDynArray::kValueMark)) {
            line += first ? "" : "\t";
            line += shownValue(std::string(value));
            first = false;
        }
        std::cout << line << '\n';
    }
    return std::cout.good() ? 0 : 1;
}

int demo(const std::string& database, const std::vector<std::string>& args)
{
    store::DemoOptions options;
    constexpr std::size_t largest = 50'000'000;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string option = args[i];
        if (option == "--statements") {
            options.statements = number(option, valueOf(args, i), largest);
        } else if (option == "--seed") {
            options.seed = number(option, valueOf(args, i), std::numeric_limits<std::uint32_t>::max());
        } else if (option == "--big-scope") {
            options.bigScope = number(option, valueOf(args, i), largest);
        } else {
            throw UsageError("unknown option " + args[i] + " for demo");
        }
    }
    auto store = createNew(database, "demo");
    ProgressBar bar("demo");
    store::generateDemo(*store, options, [&](std::size_t done, std::size_t total) { bar.update(done, total); });
    std::cerr << "demo data written to " << shown(database) << '\n';
    return 0;
}

int run(std::vector<std::string> args)
{
    std::string database = defaultDatabase().string();
    while (!args.empty() && args[0].starts_with("-")) {
        if (args[0] == "--help" || args[0] == "-h") {
            std::cout << kUsage;
            return 0;
        }
        if (args[0] == "--db" && args.size() >= 2) {
            database = args[1];
            args.erase(args.begin(), args.begin() + 2);
        } else if (args[0].starts_with("--db=")) {
            database = args[0].substr(5);
            args.erase(args.begin());
        } else {
            throw UsageError(args[0] == "--db" ? "--db needs a database" : "unknown option " + args[0]);
        }
    }
    if (args.empty()) {
        throw UsageError("no command given");
    }
    const std::string command = args[0];
    args.erase(args.begin());
    if (command != "help" && commandHelp().contains(command)
        && std::find_if(args.begin(), args.end(), [](const auto& a) { return a == "--help" || a == "-h"; }) != args.end()) {
        std::cout << commandHelp().at(command);
        return 0;
    }

    if (command == "help") {
        if (args.empty()) {
            std::cout << kUsage;
            return 0;
        }
        const auto found = commandHelp().find(args[0]);
        if (found == commandHelp().end() || args.size() > 1) {
            throw UsageError("no command \"" + args[0] + "\" to explain");
        }
        std::cout << found->second;
        return 0;
    }
    if (command == "create") {
        if (!args.empty()) {
            throw UsageError("create takes no argument, not \"" + args[0] + "\"");
        }
        auto store = createNew(database, "create");
        store->transaction([&] { store::createSchema(*store); });
        std::cerr << "empty database made at " << shown(database) << '\n';
        return 0;
    }
    if (command == "import") {
        bool lenient = false;
        std::vector<std::string> files;
        for (const auto& arg : args) {
            if (arg == "--lenient") {
                lenient = true;
            } else if (arg.starts_with("--")) {
                throw UsageError("unknown option " + arg + " for import");
            } else {
                files.push_back(arg);
            }
        }
        if (files.empty()) {
            throw UsageError("import needs at least one file");
        }
        auto store = openExisting(database);
        return importFiles(*store, files, lenient);
    }
    if (command == "export") {
        for (const auto& arg : args) {
            if (arg.starts_with("-")) {
                throw UsageError("unknown option " + arg + " for export");
            }
        }
        auto store = openExisting(database);
        store::exportJsonLines(*store, std::cout, args);
        return std::cout.good() ? 0 : 1;
    }
    if (command == "select") {
        return select(database, args);
    }
    if (command == "check") {
        if (!args.empty()) {
            throw UsageError("check takes no argument, not \"" + args[0] + "\"");
        }
        auto store = openExisting(database);
        return checkDatabase(*store);
    }
    if (command == "demo") {
        return demo(database, args);
    }
    throw UsageError("unknown command \"" + command + "\"");
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const UsageError& error) {
        std::cerr << "calvarine-db: " << error.what() << "\n" << kUsage;
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "calvarine-db: " << error.what() << '\n';
        return 1;
    }
}

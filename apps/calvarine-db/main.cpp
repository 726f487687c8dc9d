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
#include "CupsJob.h"
#include "Demo.h"
#include "JournalCommand.h"
#include "database/DbaError.h"
#include "Fixtures.h"
#include "Store.h"
#include "Terminal.h"
#include "database/FileNames.h"

namespace {

constexpr const char* kUsage = R"(usage : calvarine-db [--db CHEMIN|URI] COMMANDE [ARGUMENTS]
commandes :
  create                         crée une base neuve et vide (les fichiers de l'écran)
  import [--lenient] FICHIER.jsonl...
                                 charge des fichiers JSON Lines, tous ou aucun, vérifiés
                                 d'abord (- : l'entrée standard)
  export [FICHIER...]            écrit des fichiers de la base en JSON Lines sur la
                                 sortie standard (tous quand aucun n'est nommé)
  select "PHRASE" [--attrs "0 12"]
                                 une ligne par fiche, les valeurs séparées par des tabulations
  check                          signale chaque erreur de la base, et les avis
  demo [--statements N] [--seed S] [--big-scope N]
                                 crée une base de démonstration (dix ans de bordereaux)
  journal [--since AAAA-MM-JJ] [--user NOM] [--invoice N] [--organisation CODE]
          [--format text|csv|jsonl] | --purge-before AAAA-MM-JJ
                                 le journal des rééditions (papier et fichiers), ou sa purge
  help [COMMANDE]                ce texte, ou le détail d'une commande
La base par défaut est $XDG_DATA_HOME/calvarine/demo.db (~/.local/share sans XDG_DATA_HOME) ;
--db prend un fichier (ou sqlite:CHEMIN) ou une URI PostgreSQL (postgresql://utilisateur@hôte/base).
Toutes les commandes sauf create et demo demandent une base qui existe.
)";

const std::map<std::string, std::string>& commandHelp()
{
    static const std::map<std::string, std::string> help = {
        {"create", R"(usage : calvarine-db [--db CHEMIN|URI] create
Crée une base neuve avec les fichiers que l'écran ouvre (ACTIVITES, ASSOCIATION,
FACTURORG, ORGPRISECHARGE, PERIODESPAIE, TEMPO), DROITS et ARCHIVEBORDCAISSE avec
son dictionnaire, tous vides. Refuse une base qui existe déjà, et un dossier qui
n'existe pas (créez-le d'abord : une faute de frappe ne fait pas de dossier).
)"},
        {"import", R"(usage : calvarine-db [--db CHEMIN|URI] import [--lenient] FICHIER.jsonl...
Charge des fichiers JSON Lines dans une base qui existe, en une seule transaction :
si une ligne est refusée, rien d'aucun fichier n'est importé. « - » lit l'entrée
standard. Sont refusées, avec fichier:ligne, dans l'ordre des lignes :
  - une ligne qui n'est pas une fiche (JSON mal formé, champ inconnu) ;
  - une ligne avec une clé et sans fiche ;
  - un bordereau d'ARCHIVEBORDCAISSE dont la clé contredit ses attributs
    (la période en attribut 1, le numéro de facture en attribut 3) ;
  - un bordereau ou une activité dont l'entité (ASSOCIATION) n'a pas de fiche,
    ni dans la base ni dans les fichiers importés.
--lenient importe les trois derniers cas avec un avertissement chacun.
Un organisme (ORGPRISECHARGE) nommé par des bordereaux et sans fiche n'est pas une
erreur : c'est un avis (un par organisme), et les bordereaux sont importés.
Indique les fiches importées par fichier.
)"},
        {"export", R"(usage : calvarine-db [--db CHEMIN|URI] export [FICHIER...]
Écrit les fichiers nommés (tous quand aucun ne l'est) en JSON Lines sur la sortie
standard, les dictionnaires d'abord ; ce qu'elle écrit se réimporte tel quel
(import, sans --lenient) dans une base neuve faite par create.
)"},
        {"select", R"(usage : calvarine-db [--db CHEMIN|URI] select "PHRASE" [--attrs "0 12"]
Exécute une phrase de requête de l'écran, par exemple
  'SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" PAR SigleOrgaArchive'
et écrit une ligne par fiche : les attributs demandés (0 : la clé), séparés par
des tabulations.
)"},
        {"check", R"(usage : calvarine-db [--db CHEMIN|URI] check
Lit toutes les fiches et signale chaque erreur qu'import refuserait : fiches sans
attribut, bordereaux dont la clé contredit les attributs, entités nommées sans
fiche ; et les avis d'une archive normale : un organisme nommé par des bordereaux
sans fiche (un avis par organisme). Finit par les comptes ; le code de sortie est
1 quand il y a une erreur, 0 quand il n'y a que des avis.
)"},
        {"demo", R"(usage : calvarine-db [--db CHEMIN|URI] demo [--statements N] [--seed S] [--big-scope N]
Crée une base de démonstration : 30 entités, 152 organismes (dont trois nommés par
des bordereaux mais sans fiche, comme dans les archives réelles), les droits de
$USER, ADMIN et STAGIAIRE, et N bordereaux (20000 par défaut) sur dix ans ;
--big-scope ajoute N bordereaux à une sélection (entité 001, Prestataire, période
en cours). La même graine donne les mêmes données. Refuse une base qui existe déjà.
)"},
        {"journal", kJournalHelp},
        {"help", R"(usage : calvarine-db help [COMMANDE]
Sans commande : la liste des commandes ; avec : le détail de celle-ci.
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

// Why the store could not open a database, in French; the store's own words
// for causes it has no French for.
std::string openFailure(const DbaError& error)
{
    const std::string& detail = error.detail();
    if (error.context() == "connect to the PostgreSQL server") {
        return "le serveur PostgreSQL ne peut pas être joint (" + detail + ")";
    }
    if (detail == "no such database file") {
        return "ce fichier de base n'existe pas";
    }
    if (detail.starts_with("no such folder ")) {
        return "le dossier " + detail.substr(15) + " n'existe pas";
    }
    if (detail == "a folder, not a database file") {
        return "c'est un dossier, pas un fichier de base";
    }
    if (detail.starts_with("read-only")) {
        return "le fichier est en lecture seule (" + detail + ")";
    }
    if (detail.starts_with("an empty file")) {
        return "c'est un fichier vide, pas une base";
    }
    if (detail.find("not a database") != std::string::npos) {
        return "ce fichier n'est pas une base de Calvarine (" + detail + ")";
    }
    return error.context() + " : " + detail;
}

// A failure of the store met by a command, in French: what kind of failure,
// then what the store was doing and its own words.
std::string databaseFailure(const DbaError& error)
{
    switch (error.kind()) {
    case DbaError::Kind::NotConnected:
        return "la base ne peut pas être ouverte : " + openFailure(error);
    case DbaError::Kind::NoFile:
        return "fichier inexistant dans la base (" + error.context() + " : " + error.detail() + ")";
    case DbaError::Kind::BadData:
        return "donnée refusée par la base (" + error.context() + " : " + error.detail() + ")";
    case DbaError::Kind::BadSentence:
    case DbaError::Kind::UnknownName:
        return "phrase de requête refusée (" + error.context() + " : " + error.detail() + ")";
    default:
        return "erreur de la base (" + error.context() + " : " + error.detail() + ")";
    }
}

// A database made now, or the reason in French.
std::shared_ptr<store::Store> connectNew(const std::string& database)
{
    try {
        return store::Store::connect(database, store::OpenMode::Create);
    } catch (const DbaError& error) {
        throw std::runtime_error(shown(database) + " : " + openFailure(error));
    }
}

// An existing database; never makes one.
std::shared_ptr<store::Store> openExisting(const std::string& database)
{
    try {
        return store::Store::connect(database);
    } catch (const DbaError& error) {
        std::error_code ignored;
        if (isFile(database) && !std::filesystem::exists(fileOf(database), ignored)) {
            throw std::runtime_error(shown(database) + " : " + openFailure(error) + " (calvarine-db create ou demo en crée une)");
        }
        throw std::runtime_error(shown(database) + " : " + openFailure(error));
    }
}

// A new database for command (create or demo); refuses one that exists, and
// says what the administrator can do instead: nothing is ever added to or
// written over an existing database by these two.
std::shared_ptr<store::Store> createNew(const std::string& database, const std::string& command)
{
    const std::string refusal = command + " crée une base neuve et n'écrit jamais dans une base qui existe : ";
    if (isFile(database)) {
        const auto file = fileOf(database);
        std::error_code error;
        if (std::filesystem::exists(file, error)) {
            throw std::runtime_error(file.string() + " existe déjà. " + refusal + "donnez un autre chemin avec --db, ou supprimez "
                + file.string() + " (avec ses fichiers -wal et -shm, s'il en a) et relancez " + command);
        }
        // A mistyped folder is not made: the database would land where nobody looks.
        const auto folder = file.parent_path();
        if (!folder.empty() && !std::filesystem::is_directory(folder, error)) {
            throw std::runtime_error("le dossier " + folder.string() + " n'existe pas : " + command
                + " ne crée pas de dossier ; vérifiez le chemin, ou créez le dossier (mkdir -p " + folder.string() + ")");
        }
        return connectNew(database);
    }
    auto store = connectNew(database);
    if (store->fileExists(FileNames::ARCHIVEBORDCAISSE)) {
        throw std::runtime_error("la base PostgreSQL " + shown(database) + " contient déjà une archive (fichier ARCHIVEBORDCAISSE). "
            + refusal + "donnez à --db une autre base, vide (createdb), ou supprimez celle-ci et recréez-la (dropdb, createdb)");
    }
    return store;
}

std::size_t number(const std::string& option, const std::string& text, std::size_t largest)
{
    const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || text.size() > 12 || std::stoull(text) > largest) {
        throw UsageError(option + " prend un nombre entier de 0 à " + std::to_string(largest) + ", pas « " + text + " »");
    }
    return std::stoull(text);
}

// The value after an option of a command.
const std::string& valueOf(const std::vector<std::string>& args, std::size_t& i)
{
    if (i + 1 >= args.size()) {
        throw UsageError(args[i] + " demande une valeur");
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
            throw UsageError("option inconnue de select : " + args[i]);
        } else if (sentence.empty()) {
            sentence = args[i];
        } else {
            throw UsageError("select prend une seule phrase (entre guillemets) ; « " + args[i] + " » est un mot de trop");
        }
    }
    if (sentence.empty()) {
        throw UsageError("select demande une phrase de requête");
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
            throw UsageError("option inconnue de demo : " + args[i]);
        }
    }
    auto store = createNew(database, "demo");
    ProgressBar bar("demo");
    store::generateDemo(*store, options, [&](std::size_t done, std::size_t total) { bar.update(done, total); });
    std::cerr << "base de démonstration créée : " << shown(database) << '\n';
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
            throw UsageError(args[0] == "--db" ? "--db demande une base (un fichier ou une URI)" : "option inconnue : " + args[0]);
        }
    }
    if (args.empty()) {
        throw UsageError("aucune commande donnée");
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
        if (found == commandHelp().end()) {
            throw UsageError("pas de commande « " + args[0] + " » à expliquer");
        }
        if (args.size() > 1) {
            throw UsageError("help explique une commande à la fois ; « " + args[1] + " » est de trop (calvarine-db help "
                + args[0] + ")");
        }
        std::cout << found->second;
        return 0;
    }
    if (command == "create") {
        if (!args.empty()) {
            throw UsageError("create ne prend pas d'argument, pas « " + args[0] + " »");
        }
        auto store = createNew(database, "create");
        store->transaction([&] { store::createSchema(*store); });
        std::cerr << "base vide créée : " << shown(database) << '\n';
        return 0;
    }
    if (command == "import") {
        bool lenient = false;
        std::vector<std::string> files;
        for (const auto& arg : args) {
            if (arg == "--lenient") {
                lenient = true;
            } else if (arg.starts_with("--")) {
                throw UsageError("option inconnue d'import : " + arg);
            } else {
                files.push_back(arg);
            }
        }
        if (files.empty()) {
            throw UsageError("import demande au moins un fichier (- : l'entrée standard)");
        }
        auto store = openExisting(database);
        return importFiles(*store, files, lenient);
    }
    if (command == "export") {
        for (const auto& arg : args) {
            if (arg.starts_with("-")) {
                throw UsageError("option inconnue d'export : " + arg);
            }
        }
        auto store = openExisting(database);
        for (const auto& file : args) {
            if (!store->fileExists(file)) {
                std::string files;
                for (const auto& name : store->files()) {
                    files += (files.empty() ? "" : ", ") + name;
                }
                throw std::runtime_error("export : la base n'a pas de fichier " + file + " (ses fichiers : " + files + ")");
            }
        }
        // The records that statements and activities name come first, so that an
        // import of the export meets no reference before its record.
        std::vector<std::string> files = args;
        if (files.empty()) {
            for (const char* first : {"ASSOCIATION", "ORGPRISECHARGE"}) {
                if (store->fileExists(first)) {
                    files.emplace_back(first);
                }
            }
            for (auto& file : store->files()) {
                if (std::find(files.begin(), files.end(), file) == files.end()) {
                    files.push_back(std::move(file));
                }
            }
        }
        store::exportJsonLines(*store, std::cout, files);
        return std::cout.good() ? 0 : 1;
    }
    if (command == "select") {
        return select(database, args);
    }
    if (command == "check") {
        if (!args.empty()) {
            throw UsageError("check ne prend pas d'argument, pas « " + args[0] + " »");
        }
        auto store = openExisting(database);
        return checkDatabase(*store);
    }
    if (command == "demo") {
        return demo(database, args);
    }
    if (command == "journal") {
        auto store = openExisting(database);
        try {
            return journalCommand(*store, args, [](const store::JournalEntry& entry) {
                return belmontis::jobStateKeywordOf(entry.printServer, entry.host, store::journalHostName(), entry.job);
            });
        } catch (const std::invalid_argument& mistake) {
            throw UsageError(mistake.what());
        }
    }
    throw UsageError("commande inconnue : « " + command + " »");
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const UsageError& error) {
        std::cerr << "calvarine-db : " << error.what() << "\n" << kUsage;
        return 2;
    } catch (const DbaError& error) {
        std::cerr << "calvarine-db : " << databaseFailure(error) << '\n';
        return 1;
    } catch (const std::exception& error) {
        std::cerr << "calvarine-db : " << error.what() << '\n';
        return 1;
    }
}

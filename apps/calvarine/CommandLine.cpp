#include "CommandLine.h"

namespace {

constexpr const char* kHelp = R"(Usage : calvarine [--db CHEMIN|URI] [--user NOM] [--print-to DOSSIER]
Réédition des bordereaux archivés.

Options :
  --db CHEMIN|URI      la base de données à ouvrir : un fichier qui existe, ou
                       un serveur PostgreSQL (postgresql://utilisateur@hôte/base).
                       Sans --db : la base de démonstration de l'utilisateur,
                       créée à la première utilisation.
  --user NOM           l'utilisateur dont les droits s'appliquent
                       (par défaut : $USER).
  --print-to DOSSIER   écrire les éditions papier en fichiers PDF dans DOSSIER,
                       au lieu de les envoyer à l'imprimante.
  -h, --help           afficher cette aide et quitter.

Une base se crée avec calvarine-db (create, import, demo).
)";

} // namespace

const char* CommandLine::helpText()
{
    return kHelp;
}

CommandLine CommandLine::parse(const std::vector<std::string>& args)
{
    CommandLine line;
    const auto fail = [&](std::string error) {
        if (line.error.empty()) {
            line.error = std::move(error);
        }
    };
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-h" || arg == "--help" || arg == "-?") {
            line.help = true;
            continue;
        }
        if (!arg.starts_with("--")) {
            if (arg.starts_with("-") && arg.size() > 1) {
                // The toolkit's option, and its value if one follows.
                if (i + 1 < args.size() && !args[i + 1].starts_with("-")) {
                    ++i;
                }
                continue;
            }
            fail("argument inattendu : « " + arg + " »");
            continue;
        }
        const auto equals = arg.find('=');
        const std::string name = arg.substr(0, equals);
        std::optional<std::string>* target = name == "--db" ? &line.database
            : name == "--user"                             ? &line.user
            : name == "--print-to"                         ? &line.printTo
                                                           : nullptr;
        if (!target) {
            fail("option inconnue : « " + name + " »");
            continue;
        }
        if (equals != std::string::npos) {
            *target = arg.substr(equals + 1);
        } else if (i + 1 < args.size()) {
            *target = args[++i];
        } else {
            fail("l'option « " + name + " » attend une valeur");
            continue;
        }
        if (target->value().empty()) {
            fail("l'option « " + name + " » attend une valeur non vide");
        }
    }
    return line;
}

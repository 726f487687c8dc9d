#include "JournalCommand.h"

#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "Store.h"
#include "database/DbaError.h"

const char* const kJournalHelp = R"(usage : calvarine-db [--db CHEMIN|URI] journal [--since AAAA-MM-JJ] [--user NOM]
                     [--invoice N] [--organisation CODE] [--format text|csv|jsonl]
       calvarine-db [--db CHEMIN|URI] journal --purge-before AAAA-MM-JJ
Le journal des rééditions : une entrée par réédition, sur papier ou en fichiers,
de chaque poste, avec l'heure (UTC), l'utilisateur, le poste, l'entité, la période
et l'activité, la sortie (imprimante, exemplaires, recto-verso, travail CUPS et son
état ; ou le dossier et chaque fichier), les bordereaux (organisme et facture) et
l'issue : faite, refusée (avec le motif) ou annulée. L'état des travaux papier
encore ouverts est d'abord demandé au serveur d'impression et mis à jour.
  --since         les entrées de ce jour et des suivants
  --user          celles de cet utilisateur
  --invoice       celles qui nomment ce numéro de facture
  --organisation  celles qui nomment cet organisme
  --format        text (par défaut), csv ou jsonl
--purge-before supprime les entrées antérieures à ce jour (commande d'administrateur) ;
la purge est elle-même inscrite au journal, au nom de $USER.
)";

namespace {

std::string joined(const std::vector<std::string>& values, const char* separator)
{
    std::string out;
    for (const auto& value : values) {
        out += (out.empty() ? "" : separator) + value;
    }
    return out;
}

std::string statementsText(const store::JournalEntry& entry)
{
    std::vector<std::string> named;
    for (const auto& statement : entry.statements) {
        named.push_back(statement.organisation + " " + statement.invoice);
    }
    return joined(named, ", ");
}

std::string paperText(const store::JournalEntry& entry)
{
    std::string text = "imprimante " + (entry.printer.empty() ? std::string("(par défaut)") : entry.printer) + ", "
        + std::to_string(entry.copies) + (entry.copies > 1 ? " exemplaires" : " exemplaire") + (entry.duplex ? ", recto-verso" : ", recto");
    if (entry.job > 0) {
        text += ", travail n° " + std::to_string(entry.job);
        if (!entry.jobState.empty()) {
            text += " : " + store::journalJobStateText(entry.jobState);
        }
    }
    return text;
}

std::string csvField(const std::string& text)
{
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        return text;
    }
    std::string out = "\"";
    for (const char c : text) {
        out += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    return out + "\"";
}

void writeText(std::ostream& out, const store::JournalEntry& entry)
{
    out << entry.time << "  " << entry.user << "@" << entry.host << "  ";
    if (entry.output == store::JournalOutput::Purge) {
        out << "purge du journal : " << entry.reason << '\n';
        return;
    }
    out << entry.entity << entry.activity << " " << entry.period << "  " << store::journalOutputText(entry.output) << "  "
        << store::journalOutcomeText(entry.outcome) << "  " << entry.statements.size()
        << (entry.statements.size() > 1 ? " bordereaux" : " bordereau") << '\n';
    if (entry.output == store::JournalOutput::Paper && entry.files.empty()) {
        out << "    " << paperText(entry) << '\n';
    }
    if (!entry.files.empty() || !entry.folder.empty()) {
        out << "    dossier " << entry.folder << (entry.files.empty() ? "" : " : ") << joined(entry.files, ", ") << '\n';
    }
    if (!entry.statements.empty()) {
        out << "    bordereaux : " << statementsText(entry) << '\n';
    }
    if (entry.outcome != store::JournalOutcome::Done) {
        out << "    motif : " << entry.reason << '\n';
    }
}

nlohmann::json jsonOf(const store::JournalEntry& entry)
{
    nlohmann::json statements = nlohmann::json::array();
    for (const auto& statement : entry.statements) {
        statements.push_back({{"organisation", statement.organisation}, {"invoice", statement.invoice}});
    }
    nlohmann::json line{{"time", entry.time}, {"user", entry.user}, {"host", entry.host}, {"entity", entry.entity},
        {"period", entry.period}, {"activity", entry.activity}, {"output", store::journalOutputText(entry.output)},
        {"outcome", store::journalOutcomeText(entry.outcome)}, {"statements", std::move(statements)}};
    if (entry.output == store::JournalOutput::Paper) {
        line["printer"] = entry.printer;
        line["copies"] = entry.copies;
        line["duplex"] = entry.duplex;
        if (entry.job > 0) {
            line["job"] = entry.job;
            line["job_state"] = entry.jobState;
        }
    }
    if (!entry.folder.empty()) {
        line["folder"] = entry.folder;
        line["files"] = entry.files;
    }
    if (!entry.reason.empty()) {
        line["reason"] = entry.reason;
    }
    return line;
}

} // namespace

void writeJournal(std::ostream& out, const std::vector<store::JournalEntry>& entries, JournalFormat format)
{
    if (format == JournalFormat::Csv) {
        out << "horodatage,utilisateur,poste,entite,periode,activite,sortie,imprimante,exemplaires,recto_verso,travail,"
               "etat_travail,dossier,fichiers,organismes,factures,issue,motif\r\n";
    }
    for (const auto& entry : entries) {
        switch (format) {
        case JournalFormat::Text:
            writeText(out, entry);
            break;
        case JournalFormat::Jsonl:
            out << jsonOf(entry).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
            break;
        case JournalFormat::Csv: {
            std::vector<std::string> organisations;
            std::vector<std::string> invoices;
            for (const auto& statement : entry.statements) {
                organisations.push_back(statement.organisation);
                invoices.push_back(statement.invoice);
            }
            const bool paper = entry.output == store::JournalOutput::Paper;
            const std::string fields[] = {entry.time, entry.user, entry.host, entry.entity, entry.period, entry.activity,
                store::journalOutputText(entry.output), entry.printer, paper ? std::to_string(entry.copies) : std::string(),
                paper ? (entry.duplex ? "oui" : "non") : std::string(), entry.job > 0 ? std::to_string(entry.job) : std::string(),
                entry.jobState.empty() ? std::string() : store::journalJobStateText(entry.jobState), entry.folder,
                joined(entry.files, " "), joined(organisations, " "), joined(invoices, " "), store::journalOutcomeText(entry.outcome),
                entry.reason};
            bool first = true;
            for (const auto& field : fields) {
                out << (first ? "" : ",") << csvField(field);
                first = false;
            }
            out << "\r\n";
            break;
        }
        }
    }
}

int journalCommand(store::Store& store, const std::vector<std::string>& args, const store::Journal::JobState& jobState)
{
    store::JournalFilter filter;
    JournalFormat format = JournalFormat::Text;
    std::string purgeBefore;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& option = args[i];
        const auto value = [&]() -> const std::string& {
            if (i + 1 >= args.size()) {
                throw std::invalid_argument(option + " demande une valeur");
            }
            return args[++i];
        };
        if (option == "--since") {
            filter.since = value();
            if (!store::isJournalDay(filter.since)) {
                throw std::invalid_argument("--since prend une date AAAA-MM-JJ, pas « " + filter.since + " »");
            }
        } else if (option == "--user") {
            filter.user = value();
        } else if (option == "--invoice") {
            filter.invoice = value();
        } else if (option == "--organisation") {
            filter.organisation = value();
        } else if (option == "--format") {
            const std::string& name = value();
            if (name == "text") {
                format = JournalFormat::Text;
            } else if (name == "csv") {
                format = JournalFormat::Csv;
            } else if (name == "jsonl") {
                format = JournalFormat::Jsonl;
            } else {
                throw std::invalid_argument("--format prend text, csv ou jsonl, pas « " + name + " »");
            }
        } else if (option == "--purge-before") {
            purgeBefore = value();
            if (!store::isJournalDay(purgeBefore)) {
                throw std::invalid_argument("--purge-before prend une date AAAA-MM-JJ, pas « " + purgeBefore + " »");
            }
        } else {
            throw std::invalid_argument("option inconnue de journal : " + option);
        }
    }
    store::Journal journal(store);
    if (!purgeBefore.empty()) {
        if (!filter.since.empty() || !filter.user.empty() || !filter.invoice.empty() || !filter.organisation.empty()
            || format != JournalFormat::Text) {
            throw std::invalid_argument("--purge-before ne se combine pas avec les options de lecture");
        }
        const char* user = std::getenv("USER");
        const auto removed = journal.purgeBefore(purgeBefore, user && *user ? user : "administrateur", store::journalHostName());
        std::cerr << "journal : " << removed << (removed > 1 ? " entrées antérieures au " : " entrée antérieure au ") << purgeBefore
                  << (removed > 1 ? " supprimées" : " supprimée") << " (purge inscrite au journal)\n";
        return 0;
    }
    try {
        journal.refreshJobStates(jobState);
    } catch (const DbaError&) {
        // A database open for reading only still shows its journal, as CUPS last gave it.
    }
    writeJournal(std::cout, journal.entries(filter), format);
    return std::cout.good() ? 0 : 1;
}

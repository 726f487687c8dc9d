#include "Ctr_Belmontis.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>


#include "shell/DataDirectory.h"
#include "PaperLayout.h"
#include "Spool.h"
#include "StatementRenderer.h"
#include "Store.h"
#include "archive/Archive.h"
#include "shell/HostServices.h"

namespace belmontis {

namespace {

std::invalid_argument wrongType(std::string_view member, const char* expected)
{
    return std::invalid_argument("Ctr_Belmontis." + std::string(member) + ": expects " + expected);
}

std::string asString(std::string_view member, const Variant& value)
{
    if (const auto* text = std::get_if<std::string>(&value)) {
        return *text;
    }
    if (std::holds_alternative<std::monostate>(value)) {
        return {};
    }
    throw wrongType(member, "a String");
}

std::int32_t asLong(std::string_view member, const Variant& value)
{
    if (const auto* number = std::get_if<std::int32_t>(&value)) {
        return *number;
    }
    throw wrongType(member, "a Long");
}

bool asBool(std::string_view member, const Variant& value)
{
    if (const auto* flag = std::get_if<bool>(&value)) {
        return *flag;
    }
    throw wrongType(member, "a Boolean");
}

// An object member takes its reference, or drops it for Nothing.
template <typename T>
std::shared_ptr<T> asObject(std::string_view member, const Variant& value)
{
    if (const auto* object = std::get_if<std::shared_ptr<T>>(&value)) {
        return *object;
    }
    if (std::holds_alternative<std::monostate>(value)) {
        return nullptr;
    }
    throw wrongType(member, "an object");
}

} // namespace

Ctr_Belmontis::Ctr_Belmontis(HostServices* host)
    : m_host(host)
{
}

void Ctr_Belmontis::setProperty(std::string_view name, Variant& value)
{
    if (name == "BaseEdition") {
        m_base = asObject<DbaDatabase>(name, value);
    } else if (name == "BaseJournal") {
        m_journalBase = asObject<DbaDatabase>(name, value);
    } else if (name == "ClientEdition") {
        m_client = asObject<DbaClient>(name, value);
    } else if (name == "W_Periode") {
        m_periode = asString(name, value);
    } else if (name == "W_Entite") {
        m_entite = asString(name, value);
    } else if (name == "W_Activite") {
        m_activite = asString(name, value);
    } else if (name == "W_LibelleActivite") {
        m_libelleActivite = asString(name, value);
    } else if (name == "W_DrapeauVrai") {
        m_drapeauVrai = asBool(name, value);
    } else if (name == "W_DrapeauFaux") {
        m_drapeauFaux = asBool(name, value);
    } else if (name == "W_EntiteBis") {
        m_entiteBis = asString(name, value);
    } else if (name == "W_Papier") {
        m_papier = asBool(name, value);
    } else if (name == "SpoolDirectory") {
        m_spool = asString(name, value);
    } else if (name == "Imprimante") {
        m_paper.printer = asString(name, value);
    } else if (name == "Copies") {
        const std::int32_t copies = asLong(name, value);
        if (copies < 1 || copies > 999) {
            throw std::invalid_argument("Ctr_Belmontis.Copies: expects 1 to 999 copies");
        }
        m_paper.copies = copies;
    } else if (name == "RectoVerso") {
        m_paper.duplex = asBool(name, value);
    } else if (name == "Apercu") {
        m_apercu = asBool(name, value);
    } else if (name == "SeuilConfirmation") {
        m_seuil = std::max<std::int32_t>(0, asLong(name, value));
    } else {
        throw std::invalid_argument("Ctr_Belmontis has no property " + std::string(name));
    }
}

Variant Ctr_Belmontis::invoke(std::string_view name, std::vector<std::reference_wrapper<Variant>> args)
{
    if (name == "Compte_Rendu" && args.empty()) {
        return m_compteRendu;
    }
    if (name != "Editer_Bordereaux") {
        throw std::invalid_argument("Ctr_Belmontis has no method " + std::string(name));
    }
    if (args.size() != 1) {
        throw std::invalid_argument("Ctr_Belmontis.Editer_Bordereaux: expects one argument");
    }
    Editer_Bordereaux(asObject<DbaDynArray>(name, args.front().get()));
    return {};
}

void Ctr_Belmontis::report(const std::string& what) const
{
    if (m_host) {
        m_host->reportFailure("Ctr_Belmontis.Editer_Bordereaux", what);
    } else {
        std::cerr << "Ctr_Belmontis.Editer_Bordereaux: " << what << '\n';
    }
}

void Ctr_Belmontis::Editer_Bordereaux(const std::shared_ptr<DbaDynArray>& selection)
{
    m_compteRendu.clear();
    if (!m_base) {
        throw std::runtime_error("aucune base d'édition (BaseEdition) : rien n'a été imprimé");
    }
    // A statement that cannot be found is told; the others are printed.
    std::vector<statements::StatementData> found;
    const std::size_t count = selection ? selection->attributeCount() : 0;
    // One finder for the run: the archive file opened once, each statement one read.
    statements::StatementFinder finder(*m_base, m_periode, m_entite, m_activite);
    for (std::size_t i = 1; i <= count && i <= INT16_MAX; ++i) {
        const auto [organisation, invoice] = archive::selectionEntry(*selection, static_cast<std::int16_t>(i));
        try {
            const auto keys = finder.find(organisation, invoice);
            const std::optional<std::string> key = keys.empty() ? std::nullopt : std::optional<std::string>(keys.front());
            if (!key) {
                report("bordereau introuvable : période " + m_periode + ", entité " + m_entite + ", activité " + m_activite
                    + ", organisme " + organisation + ", facture " + statements::trimmedRight(invoice));
                continue;
            }
            found.push_back(statements::loadStatement(*m_base, *key));
            if (!m_libelleActivite.empty()) {
                found.back().activityLabel = m_libelleActivite;
            }
        } catch (const std::exception& e) {
            report(e.what());
        }
    }
    if (found.empty()) {
        m_compteRendu = "Aucun bordereau imprimé : aucun de ceux demandés n'a été trouvé.";
        auto entry = journalEntry(found);
        entry.outcome = store::JournalOutcome::Refused;
        entry.reason = "aucun des bordereaux demandés n'a été trouvé";
        journal(entry);
        return;
    }
    print(found);
}

store::JournalEntry Ctr_Belmontis::journalEntry(const std::vector<statements::StatementData>& found) const
{
    store::JournalEntry entry;
    entry.user = m_client ? m_client->userName() : std::string();
    entry.host = store::journalHostName();
    entry.entity = m_entite;
    entry.period = m_periode;
    entry.activity = m_activite;
    entry.output = store::JournalOutput::Paper;
    entry.printer = m_paper.printer;
    entry.copies = m_paper.copies;
    entry.duplex = m_paper.duplex;
    for (const auto& statement : found) {
        entry.statements.push_back({statement.organisation.code, statements::trimmedRight(statement.invoiceNumber)});
    }
    return entry;
}

void Ctr_Belmontis::journal(store::JournalEntry& entry) const
{
    auto* base = dynamic_cast<store::Store*>(m_journalBase ? m_journalBase.get() : m_base.get());
    if (!base) {
        return;
    }
    try {
        store::Journal journal(*base);
        if (entry.key.empty()) {
            entry = journal.append(entry);
        } else {
            journal.update(entry);
        }
    } catch (const std::exception& e) {
        report(std::string("le journal des rééditions n'a pas pu être écrit : ") + e.what());
    }
}

std::filesystem::path Ctr_Belmontis::spool(const QByteArray& pdf) const
{
    const std::filesystem::path directory = m_spool.empty() ? components::dataDirectory() / "spool" : m_spool;
    return publishExclusively(pdf, directory, "Bordereaux_" + m_entite + m_activite + "_" + m_periode + "_");
}

std::string Ctr_Belmontis::jobTitle() const
{
    return "Bordereaux " + m_entite + m_activite + " " + m_periode;
}

void Ctr_Belmontis::print(const std::vector<statements::StatementData>& found)
{
    statements::requireGuiApplication();
    const bool toFile = !m_spool.empty() || !m_papier;
    store::JournalEntry entry = journalEntry(found);
    bool cancelled = false;
    try {
        // The printer is known (and reachable) before anything is shown or laid out.
        const std::string printer = toFile ? std::string() : choosePrinter(m_paper.printer);
        entry.printer = printer;
        entry.printServer = toFile ? std::string() : printServerName();
        const QPageSize paper = toFile ? QPageSize(QPageSize::A4) : paperOf(printer);
        if (m_apercu && !confirmInPreview(found, paperLayout(paper), toFile ? "Aperçu avant impression" : "Aperçu avant impression – " + printer)) {
            cancelled = true;
            throw std::runtime_error("impression annulée dans l'aperçu : rien n'a été imprimé");
        }
        int pages = 0;
        const QByteArray pdf = layOut(found, paper, jobTitle(), pages);
        // A long job on paper is confirmed, naming what it takes and where, unless
        // the preview has just been confirmed.
        if (!toFile && !m_apercu && m_seuil > 0 && static_cast<std::int64_t>(pages) * m_paper.copies > m_seuil
            && !confirmLongJob(pages, m_paper.copies, printer)) {
            cancelled = true;
            throw std::runtime_error("impression annulée avant l'envoi de " + std::to_string(pages) + " pages : rien n'a été imprimé");
        }
        const std::string statements = std::to_string(found.size()) + (found.size() > 1 ? " bordereaux" : " bordereau");
        if (toFile) {
            const auto file = spool(pdf);
            // The folder first: a status line cut short still says where to look.
            m_compteRendu = "Dossier " + file.parent_path().string() + " : " + statements + " enregistré" + (found.size() > 1 ? "s" : "")
                + " dans " + file.filename().string();
            entry.folder = file.parent_path().string();
            entry.files = {file.filename().string()};
            journal(entry);
            return;
        }
        PaperOptions options = m_paper;
        // Journaled as soon as the queue holds the job: whatever follows, it may print.
        options.submitted = [&, hook = m_paper.submitted](int id) {
            entry.job = id;
            entry.jobState = "pending";
            journal(entry);
            if (hook) {
                hook(id);
            }
        };
        const SubmittedJob job = submitPdf(printer, jobTitle(), pdf, options);
        // As submitPdf last read it (no second request): a later look brings it up to date.
        entry.jobState = !job.unknownState.empty() ? "unknown" : job.waiting ? "pending" : "processing";
        journal(entry);
        // The job number first: a status line cut short still says which job to ask the print server about.
        m_compteRendu = "Travail n° " + std::to_string(job.id) + " : " + statements + " envoyé" + (found.size() > 1 ? "s" : "")
            + " à l'imprimante " + job.printer + (job.waiting ? " (en attente)" : "")
            + (job.unknownState.empty() ? std::string() : ", état inconnu : " + job.unknownState);
    } catch (const std::exception& failure) {
        entry.outcome = cancelled ? store::JournalOutcome::Cancelled : store::JournalOutcome::Refused;
        entry.reason = failure.what();
        if (entry.job > 0) {
            // Thrown out by the printer once the queue held it.
            entry.jobState = jobStateKeyword(entry.job).value_or("aborted");
        }
        journal(entry);
        throw;
    }
}

} // namespace belmontis

#pragma once

// The sibling printing control: prints archived statements chosen by period,
// entity, activity, organisation and invoice number, as one print job.
//
// Members, by name (setProperty unless said otherwise):
//   BaseEdition (DbaDatabase), ClientEdition (DbaClient), W_Periode (yyyymm),
//   W_Entite, W_Activite ("P", "M", "I"), W_LibelleActivite, W_DrapeauVrai,
//   W_DrapeauFaux (Booleans), W_EntiteBis, W_Papier (Boolean: False asks for a
//   file instead of paper), and the method Editer_Bordereaux(DbaDynArray), whose
//   attributes are statements (value 1 organisation code, value 2 invoice
//   number).
// Host-side members, set by the application that carries the control:
//   SpoolDirectory (String): every job is written there as one PDF instead of
//     being printed (--print-to);
//   Imprimante (String, empty for the server's default), Copies (Long),
//   RectoVerso (Boolean): the operator's printing choices;
//   Apercu (Boolean): the job is first shown in a print preview, where the
//     operator confirms or cancels (needs a QApplication);
//   BaseJournal (DbaDatabase, a Store): where the journal of re-issues is
//     written (see below); BaseEdition itself when it is a Store and this is unset;
//   SeuilConfirmation (Long): a paper job of more pages than this (copies
//     included) is confirmed by the operator first, unless previewed; 0: never;
//   Compte_Rendu (method, no argument): what the last run did, for the host's
//     status line ("Travail n° 12 : 3 bordereaux envoyés à l'imprimante X").
//
// Where a job goes: the spool directory when the host set one, or when
// W_Papier is False (then <data directory>/spool unless set); otherwise the
// chosen printer or CUPS's default destination, as one PDF job followed until
// the queue has taken it (CupsJob.h). There is no silent fallback: with no
// printer the run fails. A spooled job is
// Bordereaux_<entity><letter>_<period>_<n>.pdf, n the first number free, taken
// exclusively even against other processes (Spool.h). Paper and files are laid
// out by the same renderer, so page n of one is page n of the other on the
// same paper size.
//
// An unknown member, or a value of the wrong type, throws std::invalid_argument.
// A statement not found (or unreadable) is reported to the host through
// HostServices::reportFailure and the others are printed all the same. A job
// that is not printed or kept (no database, no printer, the queue refusing
// it, the server unreachable, the spool folder unwritable, the preview
// cancelled) throws from Editer_Bordereaux, with the printer's name and the
// reason: the caller's own failure path runs. Printing needs a
// QGuiApplication; use from the GUI thread.

#include <filesystem>
#include <memory>
#include <string>

#include "CupsJob.h"
#include "Journal.h"
#include "StatementData.h"
#include "shell/Components.h"

class HostServices;
class QPageLayout;

namespace belmontis {

class Ctr_Belmontis final : public LateBoundObject {
public:
    explicit Ctr_Belmontis(HostServices* host);

    void setProperty(std::string_view name, Variant& value) override;
    Variant invoke(std::string_view name, std::vector<std::reference_wrapper<Variant>> args) override;

private:
    void Editer_Bordereaux(const std::shared_ptr<DbaDynArray>& selection);
    void print(const std::vector<statements::StatementData>& found);
    // The journal's entry of this run (Journal.h), before its outcome is known.
    store::JournalEntry journalEntry(const std::vector<statements::StatementData>& found) const;
    // Writes entry (appended when its key is empty, its key then set). A
    // journal that cannot be written is told to the host, never thrown: the
    // job has gone whatever the journal says. Nothing without a Store.
    void journal(store::JournalEntry& entry) const;
    // Writes the job as one PDF into the spool folder; its path.
    std::filesystem::path spool(const QByteArray& pdf) const;
    std::string jobTitle() const;
    void report(const std::string& what) const;

    HostServices* m_host;
    std::shared_ptr<DbaDatabase> m_base;
    std::shared_ptr<DbaDatabase> m_journalBase;
    std::shared_ptr<DbaClient> m_client;
    std::string m_periode;
    std::string m_entite;
    std::string m_activite;
    std::string m_libelleActivite;
    std::string m_entiteBis;
    bool m_drapeauVrai = false;
    bool m_drapeauFaux = false;
    bool m_papier = true;
    std::filesystem::path m_spool;
    PaperOptions m_paper;
    bool m_apercu = false;
    std::int32_t m_seuil = 0; // pages (copies included) beyond which a paper job is confirmed; 0: never
    std::string m_compteRendu;
};

} // namespace belmontis

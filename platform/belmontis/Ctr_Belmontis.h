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
//   number). Host-side member: SpoolDirectory (String): when set, every job is
//   written there as one PDF instead of being printed.
//
// Where a job goes: the spool directory when the host set one or W_Papier is
// False; otherwise the default printer, without a dialog; with no printer at
// all, the spool directory, by default <data directory>/spool. A spooled job is
// Bordereaux_<entity><letter>_<period>_<n>.pdf, n the first number free, taken
// exclusively even against other processes (Spool.h).
//
// An unknown member, or a value of the wrong type, throws std::invalid_argument.
// Everything that goes wrong while printing (a statement not found, no
// database, the printer failing) is reported to the host through
// HostServices::reportFailure (standard error without a host) and never thrown:
// the statements found are printed all the same. Printing needs a
// QGuiApplication; use from the GUI thread.

#include <filesystem>
#include <memory>
#include <string>

#include "StatementData.h"
#include "shell/Components.h"

class HostServices;

namespace belmontis {

class Ctr_Belmontis final : public LateBoundObject {
public:
    explicit Ctr_Belmontis(HostServices* host);

    void setProperty(std::string_view name, Variant& value) override;
    Variant invoke(std::string_view name, std::vector<std::reference_wrapper<Variant>> args) override;

private:
    void Editer_Bordereaux(const std::shared_ptr<DbaDynArray>& selection);
    void print(const std::vector<statements::StatementData>& found);
    // Writes the job as one PDF into the spool folder; its path.
    std::filesystem::path spool(const std::vector<statements::StatementData>& found) const;
    std::string jobTitle() const;
    void report(const std::string& what) const;

    HostServices* m_host;
    std::shared_ptr<DbaDatabase> m_base;
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
};

} // namespace belmontis

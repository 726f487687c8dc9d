#pragma once

// How a paper job is laid out and shown before it goes: the same renderer as
// the PDF files of FUSION, on the printer's paper.

#include <string>
#include <vector>

#include <QByteArray>
#include <QPageLayout>
#include <QPageSize>

#include "StatementData.h"

namespace belmontis {

// The page layout of a paper job: the printer's paper, portrait, with the
// margins of the statements' PDF files.
QPageLayout paperLayout(const QPageSize& paper);

// The job as one PDF/A-1b on paper. On A4 it is exactly the PDF the server
// command writes for the same statements, page for page.
QByteArray layOut(const std::vector<statements::StatementData>& found, const QPageSize& paper, const std::string& title);
// The same, with the number of its pages.
QByteArray layOut(const std::vector<statements::StatementData>& found, const QPageSize& paper, const std::string& title, int& pages);

// Shows the job in a print preview (a modal dialog named
// "ApercuAvantImpression", buttons "Imprimer" and "Annuler"); true when the
// operator confirms. Throws std::runtime_error without a QApplication.
bool confirmInPreview(const std::vector<statements::StatementData>& found, const QPageLayout& layout, const std::string& title);

// Asks the operator to confirm a long paper job before it goes (a modal box
// named "ConfirmationImpression" that names the pages, the copies and the
// printer; buttons "Imprimer" and "Annuler", Annuler the default, so that an
// Enter too many prints nothing). True when the operator confirms.
bool confirmLongJob(int pages, int copies, const std::string& printer);

} // namespace belmontis

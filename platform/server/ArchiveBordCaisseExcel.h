#pragma once

// The server command ARCHIVEBORDCAISSEEXCEL: re-issues archived statements as
// PDF files in the directory FUSION.
//
// Sentence: ARCHIVEBORDCAISSEEXCEL <yyyymm> <entity> <letter>. The statements
// are listed in TEMPO "REQUETEBORDEXCEL", one attribute each (value 1 the
// organisation code, value 2 the invoice number). Each one found in
// ARCHIVEBORDCAISSE becomes one file (see fusionFileName), each statement once,
// whichever entries name it. An entry that finds no statement fails the whole
// run, naming it: every statement asked gets its file or the operator is told.
// TEMPO "BORDCAISSEEXCEL" lists the names, one attribute each, in the order of
// the request; a result of an earlier run is removed before anything else,
// also when the run then fails.
//
// Publishing is one transaction (see FusionBatch): every PDF is rendered, then
// all are written under hidden names, made durable together and renamed into
// place, then the result record is written. A malformed sentence (not three
// words, a period that is not yyyymm, a letter other than P, M, I), a period for
// which the entity and activity have nothing archived, or any failure while
// working, the result's write included, fails the command and leaves FUSION
// exactly as it was: no file of this run, and every file it would have replaced
// back under its name. On a worker of a shared server, whose outcome commits
// after the command returns (CommandContext::settled), the replaced files are
// kept until it has committed, and put back when it does not. The command
// reports its progress after each entry of the request (done out of the number
// of entries); on a worker also while it waits, unchanged, so that a worker
// asked to stop hands the command back without waiting for the next entry.
//
// Every run is one entry of the journal of re-issues (Journal.h): a run that
// publishes its files writes it with the result record, in one transaction; a
// run that fails writes a refused one, with the reason, once its work is undone.
//
// On a shared server a large request is rendered by several workers at once:
// the worker that runs the command offers every range of the request's entries
// but the first as a part (ARCHIVEBORDCAISSEEXCEL.PARTIE, see CommandParts),
// which idle workers take from the first on. It renders the first range, then,
// from the last, every range no other worker has taken, then awaits the others.
// Whoever rendered them, the files are published as above, in the order of the
// request; a part that fails fails the command with its message. Alone, the
// worker renders everything itself, waiting for nobody.
//
// Rendering uses Qt fonts: the process that runs Execute must already have a
// QGuiApplication on its main thread, made by the host (headless hosts with
// QT_QPA_PLATFORM=offscreen). Without one the command fails, saying so.

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "CommandParts.h"
#include "FusionBatch.h"
#include "Store.h"
#include "archive/Archive.h"


namespace server {

inline constexpr const char* kArchiveBordCaisseExcel = "ARCHIVEBORDCAISSEEXCEL";
// A range of a request rendered for the worker that runs the command:
// ARCHIVEBORDCAISSEEXCEL.PARTIE <yyyymm> <entity> <letter> <first> <count>,
// first counted from 0. It runs only as a part (see CommandParts).
inline constexpr const char* kArchiveBordCaisseExcelPart = "ARCHIVEBORDCAISSEEXCEL.PARTIE";

// Registers the command and its part in store, replacing any command of those names.
void registerArchiveBordCaisseExcel(store::Store& store);

// The command itself. Throws std::invalid_argument for a malformed sentence or
// an unknown period, DbaError or std::runtime_error for other failures. A test
// may observe the publication (to stop the process at a given step).
void archiveBordCaisseExcel(store::CommandContext& context, const PublishObserver& observer = {});
// A range of a request rendered as a part: its files handed back, in order.
void archiveBordCaisseExcelPart(store::CommandContext& context);

// One entry of the request record: organisation code and invoice number, as
// the code line of the statement holds them.
using RequestEntry = archive::CodeLine;

// The entries of TEMPO "REQUETEBORDEXCEL", in order (none when it is missing).
std::vector<RequestEntry> requestEntries(store::Store& store);

// A PDF rendered in memory, not yet written; a part hands it back as it is.
using RenderedFile = store::CommandFile;

// Renders the statements of a range of entries (arguments: period, entity,
// letter, already checked), in order, calling advanced after each entry. An
// entry that finds no statement, or one already rendered in this range, gives
// nothing. Ranges of one request can be rendered apart (by several workers) and
// their files joined in order, the names made unique across them.
std::vector<RenderedFile> renderEntries(store::Store& store, const std::vector<std::string>& arguments,
    std::span<const RequestEntry> entries, const std::function<void()>& advanced = {});

// The name of the PDF of one statement, invoice as the statement's key holds it:
// <entity><letter>_<yyyymm>_<organisation>_<invoice>.pdf, the invoice number
// without its trailing blanks. A name is never shared by two statements: when
// a field holds more than plain characters (letters, digits, - _ . + # ( ) = ,)
// or the invoice number has not the key's width of ten, the other characters
// become '_', the invoice number is cut to 40, and '~' and twelve hex digits
// of a digest of the exact fields follow. No control character, no '/'.
std::string fusionFileName(std::string_view entity, std::string_view letter, std::string_view period,
    std::string_view organisation, std::string_view invoice);

} // namespace server

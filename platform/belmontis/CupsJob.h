#pragma once

// Paper jobs through the CUPS server (the one CUPS_SERVER or the client
// configuration names): the printer to use, its paper, and a PDF job submitted
// and followed until the queue has taken it.

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <QByteArray>
#include <QPageSize>

namespace belmontis {

// A paper job that was not taken: the message names the printer (or says
// there is none), the server, and CUPS's reason.
class PrintFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct PaperOptions {
    std::string printer; // empty: the default destination
    int copies = 1;
    bool duplex = false; // both sides, bound on the long edge
    // Called with the job's number once the queue holds the whole document,
    // before its state is read; empty: nothing (tests stop the server there).
    std::function<void(int job)> submitted;
};

struct SubmittedJob {
    std::string printer;
    int id = 0;
    bool waiting = false; // taken by the queue, not yet started (printer stopped or busy)
    // Why the job's state could not be read once the queue held it (the server
    // restarting, the network); empty when it was. The job is sent all the same.
    std::string unknownState;
};

// The printer wanted, checked to exist, or the default destination. Throws
// PrintFailure when the server cannot be reached, the printer does not exist,
// or there is no printer at all.
std::string choosePrinter(const std::string& wanted);

// The printers the server offers, by name, sorted. Throws PrintFailure when
// the server cannot be reached or does not answer.
std::vector<std::string> printerNames();

// The printer's default paper; A4 when it does not say.
QPageSize paperOf(const std::string& printer);

// Submits pdf as one job named title and follows it until the queue holds it
// (pending, printing or done). Throws PrintFailure when the queue refuses it,
// the server goes away before it holds the whole document, or the job is
// aborted or cancelled right away. Once the queue holds the document the job
// is sent: a state that cannot be read then is told in unknownState, never
// thrown, so that nobody prints it twice.
SubmittedJob submitPdf(const std::string& printer, const std::string& title, const QByteArray& pdf, const PaperOptions& options);

// The IPP keyword of a job's state as the server gives it now ("pending",
// "pending-held", "processing", "processing-stopped", "canceled", "aborted",
// "completed"); nullopt when it cannot be read (the server unreachable, a job
// it no longer knows). Never throws.
std::optional<std::string> jobStateKeyword(int id);

// The print server that jobs go to now, as CUPS names it ("host:port", or a
// socket's path).
std::string printServerName();

// Whether the jobs that host submitted to server can be asked about from
// thisHost: the same server, and for a server of the machine itself (a
// socket, localhost), the same machine. Job numbers are the server's own.
bool reachesJobsOf(const std::string& server, const std::string& host, const std::string& thisHost);
// jobStateKeyword(id) for a job that host submitted to server, when it can be
// asked about from thisHost (reachesJobsOf); nullopt otherwise.
std::optional<std::string> jobStateKeywordOf(const std::string& server, const std::string& host, const std::string& thisHost, int id);

} // namespace belmontis

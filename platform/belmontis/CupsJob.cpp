#include "CupsJob.h"

#include <cups/cups.h>

#include <QSizeF>
#include <QString>

#include <algorithm>
#include <chrono>
#include <optional>
#include <memory>
#include <thread>

namespace belmontis {

namespace {

// The server as the operator's administrator knows it: host and port, or socket.
std::string serverName()
{
    const std::string server = cupsServer() ? cupsServer() : "localhost";
    return server.front() == '/' ? server : server + ":" + std::to_string(ippPort());
}

// An IPP status in the operator's words.
std::string statusInFrench(ipp_status_t status)
{
    switch (status) {
    case IPP_STATUS_ERROR_NOT_FOUND:
        return "imprimante ou travail introuvable";
    case IPP_STATUS_ERROR_FORBIDDEN:
    case IPP_STATUS_ERROR_NOT_AUTHORIZED:
        return "le serveur d'impression refuse cette demande à cet utilisateur";
    case IPP_STATUS_ERROR_NOT_AUTHENTICATED:
        return "le serveur d'impression demande à l'utilisateur de s'identifier";
    case IPP_STATUS_ERROR_NOT_ACCEPTING_JOBS:
        return "l'imprimante n'accepte pas de travaux pour le moment";
    case IPP_STATUS_ERROR_PRINTER_IS_DEACTIVATED:
        return "l'imprimante est désactivée";
    case IPP_STATUS_ERROR_DOCUMENT_FORMAT_NOT_SUPPORTED:
        return "l'imprimante ne sait pas imprimer un PDF";
    case IPP_STATUS_ERROR_ATTRIBUTES_OR_VALUES:
        return "l'imprimante ne prend pas en charge une option demandée (copies, recto verso)";
    case IPP_STATUS_ERROR_TOO_MANY_JOBS:
    case IPP_STATUS_ERROR_BUSY:
        return "le serveur d'impression est occupé";
    case IPP_STATUS_ERROR_SERVICE_UNAVAILABLE:
        return "le service d'impression est indisponible";
    case IPP_STATUS_ERROR_TIMEOUT:
        return "le serveur d'impression n'a pas répondu à temps";
    case IPP_STATUS_ERROR_DEVICE:
        return "l'imprimante est en erreur";
    case IPP_STATUS_ERROR_JOB_CANCELED:
        return "le travail a été annulé";
    default:
        if (status >= IPP_STATUS_ERROR_INTERNAL) {
            return "le serveur d'impression est en erreur";
        }
        if (status >= IPP_STATUS_ERROR_BAD_REQUEST) {
            return "le serveur d'impression refuse la demande";
        }
        return "réponse inattendue du serveur d'impression";
    }
}

// The last failure said in French, then, as its detail, the server's own
// words and status keyword, and the server asked.
std::string lastReason()
{
    const ipp_status_t status = cupsLastError();
    std::string said = cupsLastErrorString() ? cupsLastErrorString() : "";
    const std::string keyword = ippErrorString(status) ? ippErrorString(status) : std::to_string(status);
    while (!said.empty() && (said.back() == '.' || said.back() == ' ')) {
        said.pop_back();
    }
    std::string detail = said.empty() || said == keyword ? keyword : "« " + said + " », " + keyword;
    return statusInFrench(status) + " (réponse du serveur " + serverName() + " : " + detail + ")";
}

// How long a call waits for the print server to answer or take data. A server
// that takes the connection and then says nothing (frozen, overloaded) would
// otherwise hold the operator's window for minutes.
constexpr double kSilenceSeconds = 10;

// One connection to the print server, whose every wait is bounded. Made
// directly rather than through CUPS's default connection, which answers "no
// such printer" alike for a server that is down.
class Connection {
public:
    // Throws PrintFailure when the server cannot be reached; printer, when
    // given, is named in the message.
    explicit Connection(const std::string& printer = {})
        : m_printer(printer)
        , m_http(httpConnect2(cupsServer(), ippPort(), nullptr, AF_UNSPEC, cupsEncryption(), 1, 5000, nullptr))
    {
        if (!m_http) {
            // The system's words (English) only as the detail.
            const char* why = cupsLastErrorString();
            throw PrintFailure("le serveur d'impression " + serverName() + " est injoignable" + printerNamed()
                + " : pas de réponse" + (why && *why ? std::string(" (« ") + why + " »)" : std::string()));
        }
        httpSetTimeout(m_http.get(), kSilenceSeconds, &Connection::giveUp, this);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    http_t* get() const { return m_http.get(); }
    // Whether the server fell silent during a call, and the words for it.
    bool silent() const { return m_silent; }
    std::string silence() const
    {
        return "le serveur d'impression " + serverName() + " ne répond pas" + printerNamed() + " : aucune réponse en "
            + std::to_string(static_cast<int>(kSilenceSeconds)) + " s";
    }
    // Throws PrintFailure when the server fell silent during a call.
    void checkAnswered() const
    {
        if (m_silent) {
            throw PrintFailure(silence());
        }
    }

private:
    static int giveUp(http_t*, void* self)
    {
        static_cast<Connection*>(self)->m_silent = true;
        return 0;
    }
    std::string printerNamed() const { return m_printer.empty() ? std::string() : " (imprimante " + m_printer + ")"; }

    struct Closer {
        void operator()(http_t* http) const { httpClose(http); }
    };
    std::string m_printer;
    std::unique_ptr<http_t, Closer> m_http;
    bool m_silent = false;
};

struct DestDeleter {
    void operator()(cups_dest_t* dest) const { cupsFreeDests(1, dest); }
};
using Dest = std::unique_ptr<cups_dest_t, DestDeleter>;

struct IppDeleter {
    void operator()(ipp_t* ipp) const { ippDelete(ipp); }
};
using Ipp = std::unique_ptr<ipp_t, IppDeleter>;

const char* const kNoPrinter = "aucune imprimante : le serveur d'impression n'en connaît aucune par défaut et aucune n'a été choisie. "
                               "Choisissez une imprimante par Fichier ▸ Imprimante…, ou demandez à l'administrateur d'en installer une "
                               "(ou de lancer calvarine avec --print-to DOSSIER pour garder les bordereaux en PDF).";

// The job's state and, when it ended badly, why.
struct JobState {
    ipp_jstate_t state = IPP_JSTATE_PENDING;
    std::string why;
};

JobState jobState(Connection& server, int id)
{
    char uri[HTTP_MAX_URI];
    httpAssembleURIf(HTTP_URI_CODING_ALL, uri, sizeof uri, "ipp", nullptr, "localhost", ippPort(), "/jobs/%d", id);
    ipp_t* request = ippNewRequest(IPP_OP_GET_JOB_ATTRIBUTES);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_URI, "job-uri", nullptr, uri);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", nullptr, cupsUser());
    const Ipp response(cupsDoRequest(server.get(), request, "/"));
    if (!response || cupsLastError() > IPP_STATUS_OK_CONFLICTING) {
        throw PrintFailure("le serveur d'impression n'a pas donné l'état du travail : " + (server.silent() ? server.silence() : lastReason()));
    }
    JobState result;
    if (ipp_attribute_t* state = ippFindAttribute(response.get(), "job-state", IPP_TAG_ENUM)) {
        result.state = static_cast<ipp_jstate_t>(ippGetInteger(state, 0));
    }
    if (ipp_attribute_t* message = ippFindAttribute(response.get(), "job-printer-state-message", IPP_TAG_TEXT);
        message && ippGetString(message, 0, nullptr) && *ippGetString(message, 0, nullptr)) {
        result.why = ippGetString(message, 0, nullptr);
    }
    if (ipp_attribute_t* reasons = ippFindAttribute(response.get(), "job-state-reasons", IPP_TAG_KEYWORD)) {
        for (int i = 0; i < ippGetCount(reasons); ++i) {
            result.why += (result.why.empty() ? "" : ", ") + std::string(ippGetString(reasons, i, nullptr));
        }
    }
    return result;
}

} // namespace

std::string choosePrinter(const std::string& wanted)
{
    Connection server(wanted);
    const Dest dest(cupsGetNamedDest(server.get(), wanted.empty() ? nullptr : wanted.c_str(), nullptr));
    server.checkAnswered();
    if (dest) {
        return dest->name;
    }
    const std::string reason = lastReason();
    if (!wanted.empty()) {
        throw PrintFailure("l'imprimante " + wanted + " n'existe pas : " + reason
            + ". Choisissez-en une autre par Fichier ▸ Imprimante…");
    }
    throw PrintFailure(kNoPrinter);
}

std::vector<std::string> printerNames()
{
    Connection server;
    cups_dest_t* dests = nullptr;
    const int count = cupsGetDests2(server.get(), &dests);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        if (!dests[i].instance) {
            names.emplace_back(dests[i].name);
        }
    }
    cupsFreeDests(count, dests);
    server.checkAnswered();
    std::sort(names.begin(), names.end());
    return names;
}

QPageSize paperOf(const std::string& printer)
{
    Connection server(printer);
    const Dest dest(cupsGetNamedDest(server.get(), printer.c_str(), nullptr));
    if (!dest) {
        server.checkAnswered();
        return QPageSize(QPageSize::A4);
    }
    if (cups_dinfo_t* info = cupsCopyDestInfo(server.get(), dest.get())) {
        cups_size_t size{};
        const bool known = cupsGetDestMediaDefault(server.get(), dest.get(), info, 0, &size) != 0;
        cupsFreeDestInfo(info);
        if (known && size.width > 0 && size.length > 0) {
            // Hundredths of a millimetre; a standard size when it is one.
            const QPageSize paper(QSizeF(size.width / 100.0, size.length / 100.0), QPageSize::Millimeter, QString(),
                QPageSize::FuzzyMatch);
            if (paper.isValid()) {
                return paper;
            }
        }
    }
    server.checkAnswered();
    return QPageSize(QPageSize::A4);
}

SubmittedJob submitPdf(const std::string& printer, const std::string& title, const QByteArray& pdf, const PaperOptions& options)
{
    Connection server(printer);
    auto refused = [&](const std::string& doing) {
        if (server.silent()) {
            return PrintFailure("l'imprimante " + printer + " n'a pas reçu le travail (" + doing + ") : " + server.silence());
        }
        return PrintFailure("l'imprimante " + printer + " a refusé le travail (" + doing + ") : " + lastReason());
    };

    cups_option_t* settings = nullptr;
    int count = 0;
    count = cupsAddOption("copies", std::to_string(std::max(1, options.copies)).c_str(), count, &settings);
    count = cupsAddOption("sides", options.duplex ? "two-sided-long-edge" : "one-sided", count, &settings);
    const int id = cupsCreateJob(server.get(), printer.c_str(), title.c_str(), count, settings);
    cupsFreeOptions(count, settings);
    if (id <= 0) {
        throw refused("création");
    }
    // A job left half-sent is held by the server, and printed with what it
    // has when its wait runs out: a cancel that fails is said with the failure.
    auto failed = [&](const std::string& doing, bool midDocument = false) {
        const PrintFailure failure = refused(doing);
        // Ending the document on a silent server would wait as long again: the cancel is what matters.
        if (midDocument && !server.silent()) {
            cupsFinishDocument(server.get(), printer.c_str());
        }
        if (cupsCancelJob2(server.get(), printer.c_str(), id, 0) != IPP_STATUS_OK) {
            return PrintFailure(std::string(failure.what()) + " ; le travail " + std::to_string(id)
                + " n'a pas pu être annulé (" + lastReason() + ") : annulez-le dans la file de l'imprimante");
        }
        return failure;
    };

    if (cupsStartDocument(server.get(), printer.c_str(), id, title.c_str(), CUPS_FORMAT_PDF, 1) != HTTP_STATUS_CONTINUE) {
        throw failed("envoi du document");
    }
    if (cupsWriteRequestData(server.get(), pdf.constData(), static_cast<std::size_t>(pdf.size())) != HTTP_STATUS_CONTINUE) {
        throw failed("envoi du document", true);
    }
    if (cupsFinishDocument(server.get(), printer.c_str()) > IPP_STATUS_OK_CONFLICTING) {
        throw failed("fin du document");
    }

    // The queue holds the job. Follow it a moment: a job the printer throws
    // out at once (a backend failing, a filter missing) is not a printed one.
    SubmittedJob job{printer, id, false, {}};
    if (options.submitted) {
        options.submitted(id);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (;;) {
        JobState state;
        try {
            state = jobState(server, id);
        } catch (const PrintFailure& failure) {
            job.unknownState = failure.what();
            return job;
        }
        if (state.state == IPP_JSTATE_ABORTED || state.state == IPP_JSTATE_CANCELED) {
            throw PrintFailure("l'imprimante " + printer + " a abandonné le travail " + std::to_string(id)
                + (state.why.empty() ? std::string() : " : " + state.why) + " [serveur " + serverName() + "]");
        }
        if (state.state >= IPP_JSTATE_PROCESSING && state.state != IPP_JSTATE_STOPPED) {
            return job;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            job.waiting = true;
            return job;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

std::optional<std::string> jobStateKeyword(int id)
{
    try {
        Connection server;
        switch (jobState(server, id).state) {
        case IPP_JSTATE_PENDING: return "pending";
        case IPP_JSTATE_HELD: return "pending-held";
        case IPP_JSTATE_PROCESSING: return "processing";
        case IPP_JSTATE_STOPPED: return "processing-stopped";
        case IPP_JSTATE_CANCELED: return "canceled";
        case IPP_JSTATE_ABORTED: return "aborted";
        case IPP_JSTATE_COMPLETED: return "completed";
        }
    } catch (const PrintFailure&) {
    }
    return std::nullopt;
}

std::string printServerName()
{
    return serverName();
}

bool reachesJobsOf(const std::string& server, const std::string& host, const std::string& thisHost)
{
    if (server.empty() || server != serverName()) {
        return false;
    }
    const bool ofTheMachine = server.front() == '/' || server.starts_with("localhost:") || server.starts_with("127.") || server.starts_with("[::1]");
    return !ofTheMachine || host == thisHost;
}

std::optional<std::string> jobStateKeywordOf(const std::string& server, const std::string& host, const std::string& thisHost, int id)
{
    return reachesJobsOf(server, host, thisHost) ? jobStateKeyword(id) : std::nullopt;
}

} // namespace belmontis

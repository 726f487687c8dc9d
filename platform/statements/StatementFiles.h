#pragma once

// Statements drawn in parts on worker threads, while the caller goes on loading
// the next ones from the database.
//
// A part is one drawn document of up to perDocument statements (its font set-up
// paid once); parts are drawn on as many threads as the machine has cores
// (CALVARINE_RENDER_THREADS=N sets another number), each with a painter and
// fonts of its own, and come back in the order they were given whatever order
// they finish in. The caller's thread only queues and collects, so it can keep
// the database (which is not shared across threads) to itself.

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <QByteArray>
#include <QPageSize>

#include "StatementData.h"

namespace statements {

// How many threads draw: CALVARINE_RENDER_THREADS when set to a number from 1,
// else one per core.
unsigned renderThreads();

// Statements drawn to one document before it is cut into files. The document's
// set-up and its font subsets are paid once a part, while each file copies the
// part's subsets: 128 draws statements about a tenth faster than 64
// (statements_bench, BM_RendererPerDocument), and more gains little. Fewer
// statements than threads times this are better drawn in smaller parts.
inline constexpr std::size_t kStatementsPerDocument = 128;

// One PDF file per statement (see PdfArchive.h), drawn in parts.
class StatementFiles {
public:
    // threads 0: renderThreads().
    explicit StatementFiles(std::size_t perDocument = kStatementsPerDocument, unsigned threads = 0);
    StatementFiles(const StatementFiles&) = delete;
    StatementFiles& operator=(const StatementFiles&) = delete;
    // Waits for the parts being drawn, and drops them.
    ~StatementFiles();

    // Queues one statement; a full part goes to the threads.
    void add(StatementData data);
    // How many of the statements added so far are drawn and cut, counted from the
    // first (a part finished ahead of an earlier one counts once that one is).
    std::size_t drawn();
    // Waits for every statement added since the last call, calling progress (on
    // this thread) with drawn() as it grows; gives their files in order. Throws
    // std::runtime_error when a part failed (the others are dropped).
    std::vector<std::string> take(const std::function<void(std::size_t drawn)>& progress = {});

    class Pool;

private:
    void submit();
    // Appends the files of the drawn parts the pool gives (waiting for one with wait).
    void collect(bool wait);

    std::size_t m_perDocument;
    std::vector<StatementData> m_pending;
    std::vector<std::string> m_files; // drawn, not yet taken
    std::unique_ptr<Pool> m_pool;
};

// The statements drawn as consecutive documents of up to perDocument statements
// on the threads; gives the documents in order with each statement's number of
// pages, on paper. For one output of the whole run, see joinPdf().
struct DrawnDocuments {
    std::vector<QByteArray> documents;
    std::vector<int> pageCounts;
};
DrawnDocuments drawDocuments(std::span<const StatementData> statements, std::size_t perDocument = 64, unsigned threads = 0,
    const QPageSize& paper = QPageSize(QPageSize::A4));

} // namespace statements

#include "StatementFiles.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <QBuffer>
#include <QPdfWriter>
#include <QThread>

#include "PdfArchive.h"
#include "StatementRenderer.h"

namespace statements {

unsigned renderThreads()
{
    bool ok = false;
    const int asked = qEnvironmentVariableIntValue("CALVARINE_RENDER_THREADS", &ok);
    if (ok && asked >= 1) {
        return static_cast<unsigned>(asked);
    }
    return std::max(1u, std::thread::hardware_concurrency());
}

// The threads and the parts: queued, being drawn, drawn but not yet collected.
class StatementFiles::Pool {
public:
    enum class Output { Files, Document };

    struct Part {
        std::vector<StatementData> statements;
        bool done = false;
        std::exception_ptr error;
        std::vector<int> pageCounts;
        std::vector<std::string> files; // Output::Files
        QByteArray document;            // Output::Document
    };

    Pool(Output output, unsigned threads, const QPageSize& paper = QPageSize(QPageSize::A4))
        : m_output(output)
        , m_paper(paper)
    {
        for (unsigned i = 0; i < std::max(1u, threads); ++i) {
            // QThreads, so that Qt sets up and frees each thread's font caches.
            m_threads.emplace_back(QThread::create([this] { work(); }));
            m_threads.back()->start();
        }
    }

    ~Pool()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_closing = true;
        }
        m_wake.notify_all();
        for (const auto& thread : m_threads) {
            thread->wait();
        }
    }

    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    void submit(std::vector<StatementData> statements)
    {
        auto part = std::make_shared<Part>();
        part->statements = std::move(statements);
        {
            const std::lock_guard lock(m_mutex);
            m_parts.push_back(part);
            m_queue.push_back(std::move(part));
        }
        m_wake.notify_one();
    }

    bool empty()
    {
        const std::lock_guard lock(m_mutex);
        return m_parts.empty();
    }

    // The drawn parts at the head, taken out in order; with wait, at least one
    // unless none is left. A failed part is rethrown.
    std::vector<std::shared_ptr<Part>> collect(bool wait)
    {
        std::unique_lock lock(m_mutex);
        if (wait) {
            m_finished.wait(lock, [&] { return m_parts.empty() || m_parts.front()->done; });
        }
        std::vector<std::shared_ptr<Part>> drawn;
        while (!m_parts.empty() && m_parts.front()->done) {
            if (m_parts.front()->error) {
                std::rethrow_exception(m_parts.front()->error);
            }
            drawn.push_back(std::move(m_parts.front()));
            m_parts.pop_front();
        }
        return drawn;
    }

private:
    void work()
    {
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_wake.wait(lock, [&] { return m_closing || !m_queue.empty(); });
            if (m_closing) {
                return;
            }
            const auto part = std::move(m_queue.front());
            m_queue.pop_front();
            lock.unlock();
            try {
                draw(*part);
            } catch (...) {
                part->error = std::current_exception();
            }
            part->statements = {};
            lock.lock();
            part->done = true;
            m_finished.notify_all();
        }
    }

    void draw(Part& part) const
    {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        {
            const auto writer = archiveWriter(buffer, QStringLiteral("Bordereaux"), m_paper);
            StatementPrinter printer(*writer);
            for (const StatementData& data : part.statements) {
                part.pageCounts.push_back(printer.add(data));
            }
            printer.finish();
        }
        buffer.close();
        if (m_output == Output::Document) {
            part.document = buffer.data();
            return;
        }
        std::vector<PdfMetadata> metadata;
        for (const StatementData& data : part.statements) {
            metadata.push_back(metadataFor(data));
        }
        part.files = splitPdf(buffer.data(), part.pageCounts, metadata);
    }

    const Output m_output;
    const QPageSize m_paper;
    std::mutex m_mutex;
    std::condition_variable m_wake;     // a part queued, or closing
    std::condition_variable m_finished; // a part drawn
    std::deque<std::shared_ptr<Part>> m_parts; // in order, until collected
    std::deque<std::shared_ptr<Part>> m_queue; // not yet taken by a thread
    bool m_closing = false;
    std::vector<std::unique_ptr<QThread>> m_threads; // last: stopped first
};

StatementFiles::StatementFiles(std::size_t perDocument, unsigned threads)
    : m_perDocument(std::max<std::size_t>(perDocument, 1))
    , m_pool(std::make_unique<Pool>(Pool::Output::Files, threads ? threads : renderThreads()))
{
}

StatementFiles::~StatementFiles() = default;

void StatementFiles::add(StatementData data)
{
    m_pending.push_back(std::move(data));
    if (m_pending.size() >= m_perDocument) {
        submit();
    }
}

void StatementFiles::submit()
{
    if (!m_pending.empty()) {
        m_pool->submit(std::exchange(m_pending, {}));
    }
}

void StatementFiles::collect(bool wait)
{
    for (const auto& part : m_pool->collect(wait)) {
        std::move(part->files.begin(), part->files.end(), std::back_inserter(m_files));
    }
}

std::size_t StatementFiles::drawn()
{
    collect(false);
    return m_files.size();
}

std::vector<std::string> StatementFiles::take(const std::function<void(std::size_t drawn)>& progress)
{
    submit();
    while (!m_pool->empty()) {
        collect(true);
        if (progress) {
            progress(m_files.size());
        }
    }
    return std::exchange(m_files, {});
}

DrawnDocuments drawDocuments(std::span<const StatementData> statements, std::size_t perDocument, unsigned threads, const QPageSize& paper)
{
    DrawnDocuments drawn;
    if (statements.empty()) {
        return drawn;
    }
    requireGuiApplication();
    perDocument = std::max<std::size_t>(perDocument, 1);
    StatementFiles::Pool pool(StatementFiles::Pool::Output::Document, threads ? threads : renderThreads(), paper);
    for (std::size_t first = 0; first < statements.size(); first += perDocument) {
        const auto part = statements.subspan(first, std::min(perDocument, statements.size() - first));
        pool.submit({part.begin(), part.end()});
    }
    while (!pool.empty()) {
        for (const auto& part : pool.collect(true)) {
            drawn.documents.push_back(std::move(part->document));
            drawn.pageCounts.insert(drawn.pageCounts.end(), part->pageCounts.begin(), part->pageCounts.end());
        }
    }
    return drawn;
}

} // namespace statements

// Statements per second: the server command (FUSION, one file per statement),
// alone and through 1 or 2 calvarine-server workers sharing one request,
// the paper spool (one PDF for the whole run), the renderer alone, and a bare
// painter drawing pages of the same rows on the same threads (the limit of Qt's
// PDF engine on this machine). BM_OneWriterPerStatement is the way the
// files were made before: one PDF document, and its set-up, per statement.
// Statements are drawn on the render threads (one per core, or
// CALVARINE_RENDER_THREADS): every figure is wall-clock time.
// BM_Journal* measure what the journal of re-issues adds to a run, beside the
// run itself (BM_ServerCommand/1500/10, BM_PaperSpool/1500/10).
//
//   build/bin/statements_bench --benchmark_counters_tabular=true
//   TMPDIR=/dev/shm build/bin/statements_bench --benchmark_filter='BarePainter|ServerCommand'
//   CALVARINE_PG_URL=$(cat build/pg/url) build/bin/statements_bench --benchmark_filter=WorkersShare
//   build/bin/statements_bench --benchmark_filter='Journal|ServerCommand/1500/10|PaperSpool/1500/10'

#include <benchmark/benchmark.h>

#include <barrier>

#include <fcntl.h>
#include <unistd.h>

#include <QBuffer>
#include <QGuiApplication>
#include <QPageLayout>
#include <QPainter>
#include <QPdfWriter>
#include <QTemporaryDir>
#include <QThread>

#include "ArchiveBordCaisseExcel.h"
#include "Format.h"
#include "FusionBatch.h"
#include "Journal.h"
#include "PdfArchive.h"
#include "ScratchSchema.h"
#include "StatementData.h"
#include "StatementFiles.h"
#include "StatementRenderer.h"
#include "Store.h"
#include "WorkerProcess.h"
#include "database/FileNames.h"

namespace {

// Ten lines fill one page, 40 lines two pages, 100 three.
statements::StatementData statement(int lines, int number = 0)
{
    statements::StatementData data;
    data.activity = "P";
    data.activityLabel = "PRESTATAIRE";
    data.period = "202611";
    data.invoiceNumber = "F" + std::to_string(1000000 + number);
    data.invoiceDate = "20261130";
    data.entity = {"001", "AIDE A DOMICILE DU VAL", "", {"12 RUE DES ECOLES", "94000 CRETEIL"}};
    data.organisation = {"012", "CAISSE PRIMAIRE", "CPAM", {"1 RUE DE LA CAISSE", "94000 CRETEIL"}};
    for (int i = 0; i < lines; ++i) {
        data.lines.push_back({"BENEFICIAIRE " + std::to_string(i), "B" + std::to_string(i), "AIDE MENAGERE", 1250, 2280, 28500});
        data.totalCents += 28500;
    }
    return data;
}

std::vector<statements::StatementData> statementsOf(int count, int lines)
{
    std::vector<statements::StatementData> all;
    for (int i = 0; i < count; ++i) {
        all.push_back(statement(lines, i));
    }
    return all;
}

void perStatement(benchmark::State& state, int count)
{
    state.SetItemsProcessed(state.iterations() * count);
}

// Files of one statement each, the documents shared (what the command does),
// drawn on 1 or 2 threads.
void BM_RendererAlone(benchmark::State& state)
{
    const auto all = statementsOf(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    for (auto _ : state) {
        statements::StatementFiles files(64, static_cast<unsigned>(state.range(2)));
        for (const auto& data : all) {
            files.add(data);
        }
        benchmark::DoNotOptimize(files.take());
    }
    perStatement(state, static_cast<int>(all.size()));
}
BENCHMARK(BM_RendererAlone)->ArgsProduct({{200}, {10, 40, 100}, {1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();

// The size of the parts (statements drawn to one document, then cut) on the
// default threads: the document's set-up and font subsets are paid once a part,
// the cut copies the part's subsets into each file.
void BM_RendererPerDocument(benchmark::State& state)
{
    const auto all = statementsOf(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    for (auto _ : state) {
        statements::StatementFiles files(static_cast<std::size_t>(state.range(2)));
        for (const auto& data : all) {
            files.add(data);
        }
        benchmark::DoNotOptimize(files.take());
    }
    perStatement(state, static_cast<int>(all.size()));
}
BENCHMARK(BM_RendererPerDocument)->ArgsProduct({{1024}, {10, 40}, {32, 64, 128, 256}})->Unit(benchmark::kMillisecond)->UseRealTime();

// The former way: one PDF writer per statement.
void BM_OneWriterPerStatement(benchmark::State& state)
{
    const auto all = statementsOf(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    for (auto _ : state) {
        for (const auto& data : all) {
            QBuffer buffer;
            buffer.open(QIODevice::WriteOnly);
            statements::renderPdf({&data, 1}, buffer, QStringLiteral("bench"));
        }
    }
    perStatement(state, static_cast<int>(all.size()));
}
BENCHMARK(BM_OneWriterPerStatement)->Args({50, 10})->Args({50, 40})->Args({50, 100})->Unit(benchmark::kMillisecond)->UseRealTime();

// The paper spool: the whole run as one PDF (goal: 1,500 statements under 3 s).
void BM_PaperSpool(benchmark::State& state)
{
    const auto all = statementsOf(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    std::size_t bytes = 0;
    for (auto _ : state) {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        statements::renderPdf(all, buffer, QStringLiteral("bench"));
        bytes = static_cast<std::size_t>(buffer.size());
    }
    perStatement(state, static_cast<int>(all.size()));
    state.counters["pdf_MB"] = static_cast<double>(bytes) / 1e6;
}
BENCHMARK(BM_PaperSpool)->Args({1500, 10})->Args({1500, 40})->Unit(benchmark::kMillisecond)->UseRealTime();

// Attribute 5 to 10 of an archived line as a statement carries them: a
// beneficiary and a file number of its own, one of a few services and prices.
std::string archivedValue(int attribute, int line)
{
    static constexpr const char* services[] = {"AIDE MENAGERE", "AUXILIAIRE DE VIE", "PORTAGE DE REPAS"};
    static constexpr int prices[] = {2280, 2450, 1990};
    const int quantity = 100 * (1 + line % 7) + (line % 2) * 50;
    const int price = prices[line % 3];
    switch (attribute) {
    case 5:
        return "BENEFICIAIRE " + std::to_string(100000 + line);
    case 6:
        return "B" + std::to_string(700000 + line);
    case 7:
        return services[(line / 3) % 3];
    case 8:
        return std::to_string(quantity);
    case 9:
        return std::to_string(price);
    default:
        return std::to_string(quantity * price / 100);
    }
}

// Archives count statements of 202611 001 P (10 lines: one page each) and
// gives the request for all of them, in order.
std::string archiveStatements(store::Store& store, int count, int lines)
{
    constexpr char A = DbaDynArray::kAttributeMark;
    constexpr char V = DbaDynArray::kValueMark;
    std::string request;
    store.transaction([&] {
        store.defineName(FileNames::ARCHIVEBORDCAISSE, "PeriodeArchive", 1);
        store.defineName(FileNames::ARCHIVEBORDCAISSE, "NumFactArchive", 3);
        store.write(FileNames::ASSOCIATION, "001", "AIDE A DOMICILE DU VAL");
        store.write(FileNames::ORGPRISECHARGE, "012", "CAISSE PRIMAIRE");
        for (int i = 0; i < count; ++i) {
            std::string invoice = std::to_string(i);
            invoice = "F" + std::string(9 - invoice.size(), '0') + invoice;
            std::string record = std::string("202611") + A + "CPAM" + A + invoice + A + "20261130";
            for (int attribute = 5; attribute <= 10; ++attribute) {
                record += A;
                for (int line = 0; line < lines; ++line) {
                    record += (line ? std::string(1, V) : std::string()) + archivedValue(attribute, i * lines + line);
                }
            }
            record += A + std::string("10000");
            store.write(FileNames::ARCHIVEBORDCAISSE, std::string("001P012202611") + invoice, record);
            request += (i ? std::string(1, A) : std::string()) + "012" + V + invoice;
        }
    });
    return request;
}

// Runs the command for the request in TEMPO as the screen does; false when it made no file.
bool reissue(store::Store& store)
{
    std::int32_t status = 0;
    store.Execute(std::string("P") + DbaDynArray::kAttributeMark + "ARCHIVEBORDCAISSEEXCEL 202611 001 P", "", status);
    return status == 0 && store.read(FileNames::TEMPO, Keys::BORDCAISSEEXCEL).has_value();
}

// A bare painter: the rows of the statements BM_ServerCommand archives (its
// lines argument), rowsPerPage of them on each page, each row its six texts and
// a rule, on as many threads as the command draws on (CALVARINE_RENDER_THREADS),
// each thread its own document of its share of the pages, its fonts already
// loaded: what Qt's PDF engine can do at best with the same text and the same
// CPUs. The command's pages
// carry 10 rows at one page a statement (10 lines), 20 at two (40), 33 at
// three (100): set each beside the painter of the same rows per page.
void BM_BarePainter(benchmark::State& state)
{
    const int pages = static_cast<int>(state.range(0));
    const int rowsPerPage = static_cast<int>(state.range(1));
    const auto threads = static_cast<int>(statements::renderThreads());
    QTemporaryDir dir;
    auto store = store::Store::create(dir.path().toStdString() + "/calvarine.db");
    archiveStatements(*store, 1, rowsPerPage);
    const auto data = statements::loadStatement(*store, std::string("001P012202611F000000000"));
    struct Row {
        QString texts[6];
    };
    std::vector<Row> rows;
    for (const auto& line : data.lines) {
        rows.push_back({{QString::fromStdString(line.beneficiary), QString::fromStdString(line.fileNumber), QString::fromStdString(line.service),
            statements::formatQuantity(line.quantityHundredths), statements::formatEuros(line.unitPriceCents),
            statements::formatEuros(line.amountCents)}});
    }
    const auto draw = [&](int count) {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        QPdfWriter writer(&buffer);
        writer.setResolution(300);
        QPainter painter(&writer);
        QFont body(QStringLiteral("DejaVu Sans"));
        body.setPointSizeF(9);
        QFont bold = body;
        bold.setBold(true);
        const int columns[6] = {0, 500, 800, 1300, 1600, 1900};
        for (int page = 0; page < count; ++page) {
            if (page > 0) {
                writer.newPage();
            }
            painter.setFont(bold);
            painter.drawText(0, 100, QString::fromStdString(data.entity.name));
            painter.drawText(1200, 100, QString::fromStdString(data.organisation.name));
            painter.drawText(800, 400, QStringLiteral("DUPLICATA"));
            painter.setFont(body);
            int y = 600;
            for (const Row& row : rows) {
                for (int c = 0; c < 6; ++c) {
                    painter.drawText(columns[c], y, row.texts[c]);
                }
                painter.drawLine(0, y + 10, 2200, y + 10);
                y += 45;
            }
            painter.drawText(0, 3300, QStringLiteral("DUPLICATA – Facture n° F000001   Page 1 / 1"));
        }
        painter.end();
    };
    // The threads live across the iterations and draw once before the timing,
    // so that their fonts are loaded: the painter at its best.
    std::barrier start(threads + 1);
    std::barrier done(threads + 1);
    bool stop = false;
    std::vector<std::unique_ptr<QThread>> workers;
    for (int t = 0; t < threads; ++t) {
        const int share = pages / threads + (t < pages % threads ? 1 : 0);
        workers.emplace_back(QThread::create([&, share] {
            for (;;) {
                start.arrive_and_wait();
                if (stop) {
                    return;
                }
                draw(share);
                done.arrive_and_wait();
            }
        }));
        workers.back()->start();
    }
    const auto round = [&] {
        start.arrive_and_wait();
        done.arrive_and_wait();
    };
    round();
    for (auto _ : state) {
        round();
    }
    stop = true;
    start.arrive_and_wait();
    for (const auto& worker : workers) {
        worker->wait();
    }
    state.counters["threads"] = threads;
    state.counters["pages_per_s"] = benchmark::Counter(static_cast<double>(pages), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_BarePainter)->ArgsProduct({{200}, {10, 20, 33}})->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();

// The command as Execute runs it: lookups, loads, rendering, one sync, renames.
void BM_ServerCommand(benchmark::State& state)
{
    QTemporaryDir dir;
    auto store = store::Store::create(dir.path().toStdString() + "/calvarine.db");
    const std::string request = archiveStatements(*store, static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    // Registering the command makes TEMPO private to the session: register
    // before writing the request, as the screen's host does.
    server::registerArchiveBordCaisseExcel(*store);
    store->write(FileNames::TEMPO, Keys::REQUETEBORDEXCEL, request);
    for (auto _ : state) {
        if (!reissue(*store)) {
            state.SkipWithError("the command wrote no file");
            return;
        }
    }
    perStatement(state, static_cast<int>(state.range(0)));
    // Pages per second, to set beside the bare painter's (one page a statement).
    const auto pages = statements::drawDocuments(std::vector{statements::loadStatement(*store, std::string("001P012202611F000000000"))}).pageCounts;
    state.counters["pages"] = pages.empty() ? 0 : pages.front();
    state.counters["threads"] = statements::renderThreads();
    state.counters["pages_per_s"] = benchmark::Counter(static_cast<double>(state.range(0) * (pages.empty() ? 0 : pages.front())),
        benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_ServerCommand)->Args({20, 10})->Args({1500, 10})->Args({300, 40})->Args({300, 100})->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();

// A re-issue of every statement of one organisation, of 220 and of 6,000: the
// time per statement stays the same (each statement found by its archive key,
// one read, not among all of its organisation's statements of the period).
// BM_ReissueOneOrganisation is the whole command; BM_FindAndLoad the look-ups
// and reads alone, where a scan would show first.
void BM_ReissueOneOrganisation(benchmark::State& state)
{
    BM_ServerCommand(state);
    state.counters["s_per_statement"] = benchmark::Counter(static_cast<double>(state.range(0)),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ReissueOneOrganisation)->Args({220, 10})->Args({6000, 10})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FindAndLoad(benchmark::State& state)
{
    QTemporaryDir dir;
    auto store = store::Store::create(dir.path().toStdString() + "/calvarine.db");
    const int count = static_cast<int>(state.range(0));
    archiveStatements(*store, count, 10);
    std::vector<std::string> invoices;
    for (int i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        invoices.push_back("F" + std::string(9 - number.size(), '0') + number);
    }
    for (auto _ : state) {
        statements::StatementFinder finder(*store, "202611", "001", "P");
        for (const auto& invoice : invoices) {
            for (const auto& key : finder.find("012", invoice)) {
                benchmark::DoNotOptimize(statements::loadStatement(*store, key));
            }
        }
    }
    perStatement(state, count);
    state.counters["s_per_statement"] = benchmark::Counter(static_cast<double>(count),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_FindAndLoad)->Arg(220)->Arg(6000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The journal's entry of a run of count statements, as the command and the
// printing control make it.
store::JournalEntry journalEntryOf(int count, store::JournalOutput output)
{
    store::JournalEntry entry;
    entry.user = "BENCH";
    entry.host = "poste-bench";
    entry.entity = "001";
    entry.period = "202611";
    entry.activity = "P";
    entry.output = output;
    entry.folder = output == store::JournalOutput::Files ? "/srv/calvarine/FUSION" : "";
    entry.printer = output == store::JournalOutput::Paper ? "accueil" : "";
    entry.copies = 1;
    for (int i = 0; i < count; ++i) {
        std::string invoice = std::to_string(i);
        invoice = "F" + std::string(9 - invoice.size(), '0') + invoice;
        entry.statements.push_back({"012", invoice});
        if (output == store::JournalOutput::Files) {
            entry.files.push_back("001P_202611_012_" + invoice + ".pdf");
        }
    }
    return entry;
}

// The end of a file run: its result record, with (1) or without (0) the
// journal's entry in the same transaction, as the command writes them.
void BM_JournalFileRunEnd(benchmark::State& state)
{
    QTemporaryDir dir;
    auto store = store::Store::create(dir.path().toStdString() + "/calvarine.db");
    const int count = static_cast<int>(state.range(0));
    const bool journaled = state.range(1) != 0;
    const auto files = journalEntryOf(count, store::JournalOutput::Files).files;
    for (auto _ : state) {
        store->transaction([&] {
            DbaDynArray result;
            for (std::size_t i = 0; i < files.size(); ++i) {
                result.setAttribute(static_cast<std::int16_t>(i + 1), files[i]);
            }
            store->write(FileNames::TEMPO, Keys::BORDCAISSEEXCEL, result.text());
            if (journaled) {
                store::Journal(*store).append(journalEntryOf(count, store::JournalOutput::Files));
            }
        });
    }
}
BENCHMARK(BM_JournalFileRunEnd)->Args({1500, 0})->Args({1500, 1})->Unit(benchmark::kMillisecond)->UseRealTime();

// What a paper run writes to the journal: the entry once the queue holds the
// job, then its state once read.
void BM_JournalPaperRun(benchmark::State& state)
{
    QTemporaryDir dir;
    auto store = store::Store::create(dir.path().toStdString() + "/calvarine.db");
    const int count = static_cast<int>(state.range(0));
    for (auto _ : state) {
        store::Journal journal(*store);
        auto entry = journalEntryOf(count, store::JournalOutput::Paper);
        entry.job = 12;
        entry.jobState = "pending";
        entry = journal.append(entry);
        entry.jobState = "processing";
        journal.update(entry);
    }
}
BENCHMARK(BM_JournalPaperRun)->Arg(1500)->Unit(benchmark::kMillisecond)->UseRealTime();

// One request of 600 one-page statements through the queue of a PostgreSQL
// server (CALVARINE_PG_URL), run by 1 or 2 calvarine-server workers drawing on
// one thread each: what splitting a request across workers gains.
void BM_WorkersShareARequest(benchmark::State& state)
{
    const char* url = std::getenv("CALVARINE_PG_URL");
    if (!url || !*url) {
        state.SkipWithError("set CALVARINE_PG_URL to a PostgreSQL server");
        return;
    }
    constexpr int kStatements = 600;
    const store::ScratchSchema schema(url);
    QTemporaryDir dir;
    const std::filesystem::path folder = dir.path().toStdString();
    auto client = store::Store::connect(schema.connection());
    client->setClient(std::make_shared<DbaClient>("BENCH", "poste-bench"));
    client->write(FileNames::TEMPO, Keys::REQUETEBORDEXCEL, archiveStatements(*client, kStatements, 10));
    std::vector<std::unique_ptr<store::WorkerProcess>> workers;
    for (int i = 1; i <= state.range(0); ++i) {
        workers.push_back(std::make_unique<store::WorkerProcess>(CALVARINE_SERVER,
            std::vector<std::string>{"--db", schema.connection(), "--fusion", (folder / "FUSION").string(), "--name", "bench-" + std::to_string(i)},
            std::vector<std::string>{"CALVARINE_RENDER_THREADS=1"}, folder / "workers.log"));
    }
    // Every worker waiting for commands, and warm, before the timing.
    if (!reissue(*client) || !reissue(*client)) {
        state.SkipWithError("the command wrote no file");
        return;
    }
    for (auto _ : state) {
        if (!reissue(*client)) {
            state.SkipWithError("the command wrote no file");
            return;
        }
    }
    perStatement(state, kStatements);
}
BENCHMARK(BM_WorkersShareARequest)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// The publication alone, in files per second: 1,500 files of a statement's size
// made durable by one sync of the file system then renamed (FusionBatch), against
// the way before it, by hand: each file written, synced and renamed in turn, the
// folder synced at the end.
constexpr std::size_t kFileBytes = 24 * 1024;

void BM_FusionPublish_Batched(benchmark::State& state)
{
    QTemporaryDir dir;
    const std::filesystem::path folder = dir.path().toStdString();
    const std::string bytes(kFileBytes, 'x');
    for (auto _ : state) {
        server::FusionBatch batch(folder);
        for (int i = 0; i < state.range(0); ++i) {
            batch.stage("statement-" + std::to_string(i) + ".pdf", bytes);
        }
        batch.publish();
        batch.commit();
    }
    state.counters["files_per_s"] = benchmark::Counter(static_cast<double>(state.range(0)), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_FusionPublish_Batched)->Arg(1500)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FusionPublish_SyncPerFile(benchmark::State& state)
{
    QTemporaryDir dir;
    const std::filesystem::path folder = dir.path().toStdString();
    const std::string bytes(kFileBytes, 'x');
    for (auto _ : state) {
        for (int i = 0; i < state.range(0); ++i) {
            const auto staged = folder / (".part-" + std::to_string(i));
            const int fd = ::open(staged.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
            const bool written = fd >= 0 && ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) && ::fsync(fd) == 0;
            if (fd >= 0) {
                ::close(fd);
            }
            if (!written) {
                state.SkipWithError("cannot write a file");
                return;
            }
            std::filesystem::rename(staged, folder / ("statement-" + std::to_string(i) + ".pdf"));
        }
        const int directory = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::fsync(directory);
        ::close(directory);
    }
    state.counters["files_per_s"] = benchmark::Counter(static_cast<double>(state.range(0)), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_FusionPublish_SyncPerFile)->Arg(1500)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QGuiApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

// Rendering of archived statements, and the server command that renders them
// into FUSION, on the offscreen platform. Compare BM_ServerCommand per statement
// with BM_RenderStatement at the same size: the difference is the lookups in the
// store and the staged writes.

#include <benchmark/benchmark.h>

#include <QBuffer>
#include <QGuiApplication>
#include <QTemporaryDir>

#include "ArchiveBordCaisseExcel.h"
#include "StatementRenderer.h"
#include "Store.h"
#include "database/FileNames.h"

namespace {

statements::StatementData statement(int lines)
{
    statements::StatementData data;
    data.activity = "P";
    data.activityLabel = "PRESTATAIRE";
    data.period = "202611";
    data.invoiceNumber = "F000000001";
    data.invoiceDate = "20261130";
    data.entity = {"001", "AIDE A DOMICILE DU VAL", "", {"12 RUE DES ECOLES", "94000 CRETEIL"}};
    data.organisation = {"012", "CAISSE PRIMAIRE", "CPAM", {"1 RUE DE LA CAISSE", "94000 CRETEIL"}};
    for (int i = 0; i < lines; ++i) {
        data.lines.push_back({"BENEFICIAIRE " + std::to_string(i), "B" + std::to_string(i), "AIDE MENAGERE", 1250, 2280, 28500});
        data.totalCents += 28500;
    }
    return data;
}

void BM_RenderStatement(benchmark::State& state)
{
    const auto data = statement(static_cast<int>(state.range(0)));
    std::size_t bytes = 0;
    for (auto _ : state) {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        statements::renderPdf({&data, 1}, buffer, QStringLiteral("bench"));
        bytes = static_cast<std::size_t>(buffer.size());
    }
    state.counters["pdf_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_RenderStatement)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

void BM_ServerCommand(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    QTemporaryDir dir;
    auto store = store::Store::create(dir.path().toStdString() + "/calvarine.db");
    store->defineName(FileNames::ARCHIVEBORDCAISSE, "PeriodeArchive", 1);
    store->defineName(FileNames::ARCHIVEBORDCAISSE, "NumFactArchive", 3);
    store->write(FileNames::ASSOCIATION, "001", "AIDE A DOMICILE DU VAL");
    store->write(FileNames::ORGPRISECHARGE, "012", "CAISSE PRIMAIRE");
    constexpr char A = DbaDynArray::kAttributeMark;
    constexpr char V = DbaDynArray::kValueMark;
    std::string request;
    for (int i = 0; i < count; ++i) {
        std::string invoice = std::to_string(i);
        invoice = "F" + std::string(9 - invoice.size(), '0') + invoice;
        std::string record = std::string("202611") + A + "CPAM" + A + invoice + A + "20261130";
        for (int attribute = 5; attribute <= 10; ++attribute) {
            record += A;
            for (int line = 0; line < 10; ++line) {
                record += (line ? std::string(1, V) : std::string()) + (attribute <= 7 ? "TEXTE" : "1000");
            }
        }
        record += A + std::string("10000");
        store->write(FileNames::ARCHIVEBORDCAISSE, std::string("001P012202611") + invoice, record);
        request += (i ? std::string(1, A) : std::string()) + "012" + V + invoice;
    }
    store->write(FileNames::TEMPO, Keys::REQUETEBORDEXCEL, request);
    server::registerArchiveBordCaisseExcel(*store);
    const std::string sentence = std::string("P") + A + "ARCHIVEBORDCAISSEEXCEL 202611 001 P";
    for (auto _ : state) {
        std::int32_t status = 0;
        store->Execute(sentence, "", status);
    }
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_ServerCommand)->Arg(20)->Unit(benchmark::kMillisecond);

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

// What the Qt view adds to a statement query that fills 32,767 lines: the same
// Requete_Liste on the same data, once on the bare screen model and once with
// the view attached and shown (pending layout and painting included).
// Goal: at most a fifth more. Compare medians of repetitions run interleaved
// (--benchmark_repetitions=10 --benchmark_enable_random_interleaving=true), so
// that a change of load on the machine falls on both sides alike.
//
// The data is made once in the build folder by the demo generator: a scope of
// 32,767 statements (entity "001", Prestataire, period 202610) among a few
// hundred others.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <memory>
#include <string>

#include <QApplication>
#include <QEvent>
#include <QListView>

#include "Demo.h"
#include "FrenchDates.h"
#include "Rights.h"
#include "ScreenView.h"
#include "Store.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/HostServices.h"

namespace {

// Counts what the list of lines paints, so that the figures show the view did
// draw the new lines in every timed query.
class PaintCounter : public QObject {
public:
    int paints = 0;

protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() == QEvent::Paint) {
            ++paints;
        }
        return false;
    }
};

class BenchHost : public HostServices {
public:
    void msgBox(const std::string&, int, const std::string&) override {}
    void beep() override {}
    void doEvents() override { QCoreApplication::processEvents(); }
    void popupMenu(Control&) override {}
    void unloadForm() override {}
    std::string formatDate(const std::string& text, const std::string& pattern) override { return FrenchDates::format(text, pattern); }
    std::shared_ptr<AideEnLigne> createHelp() override { return nullptr; }
    void reportFailure(const std::string& where, const std::string& what) override { throw std::runtime_error(where + ": " + what); }
};

std::shared_ptr<store::Store> benchStore()
{
    static std::shared_ptr<store::Store> opened;
    if (opened) {
        return opened;
    }
    const std::filesystem::path file = std::filesystem::path(CALVARINE_BENCH_DATA) / "view.db";
    const bool fresh = !std::filesystem::exists(file);
    opened = store::Store::create(file);
    if (fresh) {
        store::DemoOptions options;
        options.statements = 500;
        options.bigScope = 32767;
        options.user = "bench";
        store::generateDemo(*opened, options);
    }
    return opened;
}

void statementQuery(benchmark::State& state, bool withView)
{
    BenchHost host;
    Ctr_Calvarine control(host);
    std::unique_ptr<ScreenView> view;
    PaintCounter painted;
    if (withView) {
        view = std::make_unique<ScreenView>(control.Controls());
        view->show();
        if (auto* lines = qobject_cast<QListView*>(view->widget("Lst_OrgaPos"))) {
            lines->viewport()->installEventFilter(&painted);
        }
    }
    control.TheDatabase(benchStore());
    control.TheClient(std::make_shared<DbaClient>("bench"));
    std::shared_ptr<SorbelaneDroits> rights = std::make_shared<FixedRights>(2);
    control.DroitsUtilisateur(rights);
    control.Init();
    ScreenModel& screen = control.Controls();
    screen.get("Txt_Entite").setText(store::kBigScopeEntity);
    screen.get("Opt_Prest").setValue(true); // the first query
    QCoreApplication::processEvents();
    painted.paints = 0;

    for (auto _ : state) {
        control.Requete_Liste();
        if (view) {
            QCoreApplication::processEvents();
        }
    }
    state.counters["lines"] = screen.get("Lst_OrgaPos").listCount();
    if (withView) {
        state.counters["paints"] = benchmark::Counter(painted.paints, benchmark::Counter::kAvgIterations);
    }
    view.reset();
    control.terminate();
}

void BM_StatementQuery_ModelOnly(benchmark::State& state)
{
    statementQuery(state, false);
}
void BM_StatementQuery_WithView(benchmark::State& state)
{
    statementQuery(state, true);
}

BENCHMARK(BM_StatementQuery_ModelOnly)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_StatementQuery_WithView)->Unit(benchmark::kMillisecond)->MinTime(2.0);

} // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

// The control's own work on a large scope, against the store's share of it:
// Init on 1,000 entities, the statement query filling 32,767 lines, and Tous
// copying 32,767 lines into the selected pair.
//
// The data is made once in the build folder: 1,000 entities, 150 organisations
// and one scope (entity "001", Prestataire, period 202610) of 32,767 statements.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <memory>
#include <string>

#include "FrenchDates.h"
#include "Rights.h"
#include "Store.h"
#include "archive/Archive.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/HostServices.h"

namespace {

constexpr int kEntities = 1000;
constexpr int kOrganisations = 150;
constexpr int kScopeStatements = 32767;

class BenchHost : public HostServices {
public:
    void msgBox(const std::string&, int, const std::string&) override {}
    void beep() override {}
    void doEvents() override {}
    void popupMenu(Control&) override {}
    void unloadForm() override {}
    std::string formatDate(const std::string& text, const std::string& pattern) override { return FrenchDates::format(text, pattern); }
    std::shared_ptr<AideEnLigne> createHelp() override { return nullptr; }
    void reportFailure(const std::string& where, const std::string& what) override
    {
        throw std::runtime_error(where + ": " + what);
    }
};

std::string code3(int n)
{
    std::string s = std::to_string(n);
    return std::string(3 - s.size(), '0') + s;
}

std::shared_ptr<store::Store> benchStore()
{
    static std::shared_ptr<store::Store> opened;
    if (opened) {
        return opened;
    }
    const std::filesystem::path file = std::filesystem::path(CALVARINE_BENCH_DATA) / "control.db";
    const bool fresh = !std::filesystem::exists(file);
    opened = store::Store::create(file);
    if (!fresh) {
        return opened;
    }
    store::Store& db = *opened;
    db.transaction([&] {
        for (const char* name : {"FACTURORG", "TEMPO"}) {
            db.createFile(name);
        }
        db.write("PERIODESPAIE", "1", "202610");
        for (int e = 0; e < kEntities; ++e) {
            db.write("ASSOCIATION", code3(e), "ASSOCIATION D'AIDE NUMERO " + std::to_string(e));
            db.write("ACTIVITES", code3(e) + "P01", std::string(11, '\xFE') + "P");
        }
        for (int o = 1; o <= kOrganisations; ++o) {
            db.write("ORGPRISECHARGE", code3(o), "CAISSE DE PRISE EN CHARGE " + std::to_string(o) + "\xFE" "S" + code3(o));
        }
        for (const auto& [name, attribute] : archive::kDictionary) {
            db.defineName("ARCHIVEBORDCAISSE", name, attribute);
        }
        for (int i = 0; i < kScopeStatements; ++i) {
            const std::string org = code3(i % kOrganisations + 1);
            std::string invoice = std::to_string(i);
            invoice = "F" + std::string(9 - invoice.size(), '0') + invoice;
            db.write("ARCHIVEBORDCAISSE", archive::makeKey({"001", "P", org, "202610", invoice}),
                std::string("202610\xFE") + "S" + org + "\xFE" + invoice);
        }
    });
    return opened;
}

// A control on the bench data, started.
struct StartedControl {
    BenchHost host;
    Ctr_Calvarine control{host};

    StartedControl()
    {
        control.TheDatabase(benchStore());
        control.TheClient(std::make_shared<DbaClient>("bench"));
        std::shared_ptr<SorbelaneDroits> rights = std::make_shared<FixedRights>(2);
        control.DroitsUtilisateur(rights);
        control.Init();
    }
};

void BM_Init(benchmark::State& state)
{
    benchStore();
    for (auto _ : state) {
        StartedControl started;
        benchmark::DoNotOptimize(started.control.Controls().get("Cbo_Entite").listCount());
    }
    state.counters["entities"] = kEntities;
}
BENCHMARK(BM_Init)->Unit(benchmark::kMillisecond);

// The query of the screen: one Select, one organisation read per key, 32,767 lines.
void BM_RequeteListe_Tous(benchmark::State& state)
{
    StartedControl started;
    ScreenModel& screen = started.control.Controls();
    screen.get("Txt_Entite").setText("001"); // a sole activity: chosen and queried at once
    for (auto _ : state) {
        started.control.Requete_Liste();
    }
    state.counters["lines"] = screen.get("Lst_OrgaPos").listCount();
}
BENCHMARK(BM_RequeteListe_Tous)->Unit(benchmark::kMillisecond);

// The store's share of the same query: the Select and the reads alone.
void BM_RequeteListe_StoreOnly(benchmark::State& state)
{
    auto db = benchStore();
    auto organisations = db->OpenFile("ORGPRISECHARGE");
    const std::string request = "SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = \"202610\" AND AVEC 0 = \"001P]\" "
                                "PAR SigleOrgaArchive PAR NumFactArchive\xFE" "ARCHIVEBORDCAISSE\xFE" "0";
    std::size_t keys = 0;
    for (auto _ : state) {
        std::int32_t status = 0;
        const DbaDynArray result = db->Select(request, "", status);
        keys = result.attributeCount();
        for (std::size_t i = 1; i <= keys; ++i) {
            auto item = organisations->ReadItem(archive::organisationOf(result.attribute(static_cast<std::int16_t>(i))));
            benchmark::DoNotOptimize(item);
        }
    }
    state.counters["keys"] = static_cast<double>(keys);
}
BENCHMARK(BM_RequeteListe_StoreOnly)->Unit(benchmark::kMillisecond);

// Tous over 32,767 lines: a linear presence test per line, made cheap by the
// entries' hashes.
void BM_CmdTous(benchmark::State& state)
{
    StartedControl started;
    ScreenModel& screen = started.control.Controls();
    screen.get("Txt_Entite").setText("001");
    Control& selected = screen.get("Lst_OrgaSel");
    Control& codes = screen.get("Lst_CodeOrgaSel");
    for (auto _ : state) {
        state.PauseTiming();
        selected.clear();
        codes.clear();
        state.ResumeTiming();
        screen.operatorClick(screen.get("Cmd_Tous"));
    }
    state.counters["lines"] = selected.listCount();
}
BENCHMARK(BM_CmdTous)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();

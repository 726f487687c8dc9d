// One workstation of the spool test: loads the printing control from the
// library folder given and spools the same statement RUNS times into SPOOL.
// Exits 1 when any run was reported as failed.
//
//   belmontis_spool_child LIBRARY_FOLDER DATABASE SPOOL RUNS

#include <iostream>
#include <string>

#include <QGuiApplication>

#include "ComponentLoader.h"
#include "PlatformTestSupport.h"
#include "Store.h"
#include "shell/Components.h"

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::cerr << "usage: belmontis_spool_child LIBRARY_FOLDER DATABASE SPOOL RUNS\n";
        return 2;
    }
    QGuiApplication app(argc, argv);
    testsupport::RecordingHost host;
    try {
        auto control = components::ComponentLoader({argv[1]}, {}).createLateBound("Belmontis.Ctr_Belmontis", "libbelmontis.so", &host);
        std::shared_ptr<DbaDatabase> store = store::Store::open(argv[2]);
        const int runs = std::stoi(argv[4]);
        for (int run = 0; run < runs; ++run) {
            Variant base = store;
            Variant periode = std::string("202611");
            Variant entite = std::string("001");
            Variant activite = std::string("P");
            Variant spool = std::string(argv[3]);
            control->setProperty("BaseEdition", base);
            control->setProperty("W_Periode", periode);
            control->setProperty("W_Entite", entite);
            control->setProperty("W_Activite", activite);
            control->setProperty("SpoolDirectory", spool);
            Variant selection = std::make_shared<DbaDynArray>(std::string("012") + DbaDynArray::kValueMark + "F000000123");
            control->invoke("Editer_Bordereaux", {std::ref(selection)});
        }
    } catch (const std::exception& e) {
        std::cerr << e.what() << '\n';
        return 1;
    }
    for (const auto& failure : host.failures) {
        std::cerr << failure << '\n';
    }
    return host.failures.empty() ? 0 : 1;
}

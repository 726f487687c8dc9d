#include "PaperSibling.h"

#include <iostream>

#include <QCoreApplication>

#include "ComponentLoader.h"

namespace script {

std::shared_ptr<LateBoundObject> makeSpoolingSibling(HostServices& host, const std::filesystem::path& spool,
    std::shared_ptr<DbaDatabase> journal)
{
    std::filesystem::create_directories(spool);
    const std::filesystem::path bin = QCoreApplication::applicationDirPath().toStdString();
    components::ComponentLoader loader({bin / ".." / CALVARINE_INSTALL_LIBDIR, bin / ".." / "lib"}, components::registrationDirectory(),
        [](const std::string& refusal) { std::cerr << "calvarine-script: " << refusal << '\n'; });
    auto sibling = loader.createLateBound("Belmontis.Ctr_Belmontis", "libbelmontis.so", &host);
    Variant folder = std::filesystem::absolute(spool).string();
    sibling->setProperty("SpoolDirectory", folder);
    Variant journalBase = std::move(journal);
    sibling->setProperty("BaseJournal", journalBase);
    return sibling;
}

} // namespace script

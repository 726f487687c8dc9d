#include "Sibling.h"

#include <QCoreApplication>

#include "ComponentLoader.h"

std::vector<std::filesystem::path> applicationLibraryFolders()
{
    const std::filesystem::path bin = QCoreApplication::applicationDirPath().toStdString();
    return {bin / ".." / CALVARINE_INSTALL_LIBDIR, bin / ".." / "lib"};
}

std::shared_ptr<LateBoundObject> createBelmontis(HostServices& host, const std::vector<std::filesystem::path>& libraryFolders,
    const std::function<void(const std::string&)>& warn)
{
    components::ComponentLoader loader(libraryFolders, components::registrationDirectory(), warn);
    return loader.createLateBound("Belmontis.Ctr_Belmontis", "libbelmontis.so", &host);
}

#include "Sibling.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

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

std::string preparePrintFolder(const std::filesystem::path& folder)
{
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        return error.message();
    }
    if (!std::filesystem::is_directory(folder, error)) {
        return "not a folder";
    }
    if (::access(folder.c_str(), W_OK | X_OK) != 0) {
        return std::strerror(errno);
    }
    return {};
}

#include "Sibling.h"

#include <dlfcn.h>

#include <QCoreApplication>

#include "ComponentLoader.h"

namespace {

constexpr const char* kBelmontis = "Belmontis.Ctr_Belmontis";

bool registerLibrary(const std::filesystem::path& library)
{
    void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        return false;
    }
    using Register = int (*)();
    auto* registerServer = reinterpret_cast<Register>(dlsym(handle, "DllRegisterServer"));
    const bool done = registerServer && registerServer() == 0;
    dlclose(handle);
    return done;
}

} // namespace

std::vector<std::filesystem::path> applicationLibraryFolders()
{
    const std::filesystem::path bin = QCoreApplication::applicationDirPath().toStdString();
    return {bin / ".." / CALVARINE_INSTALL_LIBDIR, bin / ".." / "lib"};
}

std::shared_ptr<LateBoundObject> createBelmontis(HostServices& host, const std::vector<std::filesystem::path>& libraryFolders)
{
    components::ComponentLoader loader;
    try {
        return loader.createLateBound(kBelmontis, &host);
    } catch (const components::ComponentError&) {
        for (const auto& folder : libraryFolders) {
            std::error_code error;
            if (const auto library = folder / "libbelmontis.so"; std::filesystem::exists(library, error) && registerLibrary(library)) {
                components::ComponentLoader registered;
                return registered.createLateBound(kBelmontis, &host);
            }
        }
        throw;
    }
}

#pragma once

// Creates objects of component libraries by class name. Only libraries of the
// application's own library folders are ever opened: the one installed under
// the class's library name, or the one a per-user registration names
// (<registration directory>/<class name>, written by DllRegisterServer) when
// that registration passes the checks of Trust.h. A refused registration is
// reported once per loader and class through the warning callback, and the
// installed library is used instead. The library is opened on first use and
// stays loaded as long as any object made from it lives (each object holds
// it); when the last one goes and the library's DllCanUnloadNow agrees, it is
// closed, its code staying mapped (what it started may still run it at thread
// or process exit) so that opening it again gives the same library.
//
// Not thread-safe: one loader per thread. Objects may outlive the loader.

#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "shell/DataDirectory.h"

class HostServices;
class LateBoundObject;

namespace components {

// A class that cannot be created: no registration, a library that does not
// open or lacks the entry point, or a library that refused the class.
class ComponentError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class ComponentLoader {
public:
    using Warning = std::function<void(const std::string&)>;

    // libraryFolders: the application's own (resolved to real paths here);
    // registrations: where the per-user class files are, the user's by
    // default, none when empty; warn: where refusals go (standard error when
    // not given).
    explicit ComponentLoader(const std::vector<std::filesystem::path>& libraryFolders,
        std::filesystem::path registrations = registrationDirectory(), Warning warn = {});
    ~ComponentLoader();
    ComponentLoader(const ComponentLoader&) = delete;
    ComponentLoader& operator=(const ComponentLoader&) = delete;

    // The library for className: the trusted registration, or else
    // installedName (as "libbelmontis.so") in the first library folder that
    // holds it. Throws ComponentError when there is none.
    std::filesystem::path libraryOf(std::string_view className, std::string_view installedName = {});

    // An object of className made by the library's DllGetClassObject with host
    // (which may be null when the class allows it). Throws ComponentError.
    std::shared_ptr<void> create(std::string_view className, std::string_view installedName, HostServices* host = nullptr);

    // The same, for classes that give a LateBoundObject ("Belmontis.Ctr_Belmontis").
    std::shared_ptr<LateBoundObject> createLateBound(std::string_view className, std::string_view installedName,
        HostServices* host = nullptr);

    const std::vector<std::filesystem::path>& libraryFolders() const { return m_libraryFolders; }

private:
    class Library;
    std::shared_ptr<Library> open(const std::filesystem::path& path);

    std::vector<std::filesystem::path> m_libraryFolders;
    std::filesystem::path m_registrations;
    Warning m_warn;
    std::set<std::string, std::less<>> m_warned;
    std::map<std::filesystem::path, std::weak_ptr<Library>> m_libraries;
};

} // namespace components

#pragma once

// Creates objects of component libraries by class name, as registered by their
// DllRegisterServer: <registration directory>/<class name> holds the library's
// path. The library is opened on first use and stays loaded as long as any
// object made from it lives (each object holds it); when the last one goes and
// the library's DllCanUnloadNow agrees, it is closed.
//
// Not thread-safe: one loader per thread. Objects may outlive the loader.

#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "DataDirectory.h"

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
    // registrations: where the class files are; the user's by default.
    explicit ComponentLoader(std::filesystem::path registrations = registrationDirectory());
    ~ComponentLoader();
    ComponentLoader(const ComponentLoader&) = delete;
    ComponentLoader& operator=(const ComponentLoader&) = delete;

    // The path of the library registered for className. Throws ComponentError.
    std::filesystem::path libraryOf(std::string_view className) const;

    // An object of className made by the library's DllGetClassObject with host
    // (which may be null when the class allows it). Throws ComponentError.
    std::shared_ptr<void> create(std::string_view className, HostServices* host = nullptr);

    // The same, for classes that give a LateBoundObject ("Belmontis.Ctr_Belmontis").
    std::shared_ptr<LateBoundObject> createLateBound(std::string_view className, HostServices* host = nullptr);

private:
    class Library;
    std::shared_ptr<Library> open(const std::filesystem::path& path);

    std::filesystem::path m_registrations;
    std::map<std::filesystem::path, std::weak_ptr<Library>> m_libraries;
};

} // namespace components

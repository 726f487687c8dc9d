#include "ComponentLoader.h"

#include <dlfcn.h>

#include <iostream>

#include "Trust.h"

#include "shell/ComponentEntryPoints.h"
#include "shell/Components.h"

namespace components {

using GetClassObject = int (*)(const char*, HostServices*, std::shared_ptr<void>*);
using CanUnloadNow = int (*)();

class ComponentLoader::Library {
public:
    explicit Library(const std::filesystem::path& path)
        : m_path(path)
    {
        // RTLD_LOCAL keeps the entry points of one library from answering for another's.
        // RTLD_NODELETE keeps its code mapped once closed: the libraries it brought in
        // keep per-thread state whose clean-up runs at thread exit (libcups), and
        // that code must still be there then.
        m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        if (!m_handle) {
            const char* why = dlerror();
            throw ComponentError("cannot load " + path.string() + ": " + (why ? why : "unknown error"));
        }
        m_getClassObject = reinterpret_cast<GetClassObject>(dlsym(m_handle, "DllGetClassObject"));
        m_canUnloadNow = reinterpret_cast<CanUnloadNow>(dlsym(m_handle, "DllCanUnloadNow"));
        if (!m_getClassObject) {
            dlclose(m_handle);
            throw ComponentError(path.string() + " has no entry point DllGetClassObject");
        }
    }

    ~Library()
    {
        // An object that escaped its holder would run code of the library: keep it then.
        if (!m_canUnloadNow || m_canUnloadNow() == 0) {
            dlclose(m_handle);
        }
    }

    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    std::shared_ptr<void> create(std::string_view className, HostServices* host) const
    {
        std::shared_ptr<void> object;
        const std::string name(className);
        const int result = m_getClassObject(name.c_str(), host, &object);
        if (result == 1) {
            throw ComponentError(m_path.string() + " does not hold the class " + name);
        }
        if (result != 0 || !object) {
            throw ComponentError(m_path.string() + " could not create an object of " + name);
        }
        return object;
    }

private:
    std::filesystem::path m_path;
    void* m_handle = nullptr;
    GetClassObject m_getClassObject = nullptr;
    CanUnloadNow m_canUnloadNow = nullptr;
};

namespace {

// The object and the library it came from; the object goes first.
struct Held {
    std::shared_ptr<void> library;
    std::shared_ptr<void> object;
    ~Held() { object.reset(); }
};

} // namespace

ComponentLoader::ComponentLoader(const std::vector<std::filesystem::path>& libraryFolders,
    std::filesystem::path registrations, Warning warn)
    : m_libraryFolders(realFolders(libraryFolders))
    , m_registrations(std::move(registrations))
    , m_warn(std::move(warn))
{
    if (!m_warn) {
        m_warn = [](const std::string& text) { std::cerr << "calvarine: " << text << '\n'; };
    }
}

ComponentLoader::~ComponentLoader() = default;

std::filesystem::path ComponentLoader::libraryOf(std::string_view className, std::string_view installedName)
{
    if (className.empty() || className.find('/') != std::string_view::npos || className.front() == '.') {
        throw ComponentError("invalid class name \"" + std::string(className) + "\"");
    }
    std::string refusal;
    if (!m_registrations.empty()) {
        const auto file = m_registrations / std::string(className);
        std::error_code error;
        if (std::filesystem::symlink_status(file, error).type() != std::filesystem::file_type::not_found) {
            auto registered = readRegistration(file, m_registrations.parent_path().parent_path(), m_libraryFolders);
            if (!registered.library.empty()) {
                return registered.library;
            }
            refusal = registered.refusal;
        }
    }
    std::filesystem::path installed;
    if (!installedName.empty() && installedName.find('/') == std::string_view::npos) {
        for (const auto& folder : m_libraryFolders) {
            if (std::error_code error; std::filesystem::is_regular_file(folder / installedName, error)) {
                installed = folder / installedName;
                break;
            }
        }
    }
    if (!installed.empty()) {
        // The application's own folder is trusted no more blindly than a registration.
        std::error_code error;
        const auto real = std::filesystem::canonical(installed, error);
        const auto why = error ? std::optional<std::string>(installed.string() + ": " + error.message())
                               : libraryUntrustedBecause(real);
        if (why) {
            throw ComponentError("class " + std::string(className) + ": the installed library " + installed.string()
                + " is refused: " + *why + (refusal.empty() ? std::string() : "; " + refusal));
        }
    }
    if (!refusal.empty() && m_warned.emplace(className).second) {
        m_warn(refusal + (installed.empty() ? std::string() : "; the installed library " + installed.string() + " is used"));
    }
    if (installed.empty()) {
        std::string folders;
        for (const auto& folder : m_libraryFolders) {
            folders += (folders.empty() ? "" : ", ") + folder.string();
        }
        throw ComponentError("class " + std::string(className) + " is not installed"
            + (installedName.empty() ? std::string() : " (no " + std::string(installedName) + " in " + (folders.empty() ? "any library folder" : folders) + ")")
            + (refusal.empty() ? std::string() : "; " + refusal));
    }
    return installed;
}

std::shared_ptr<ComponentLoader::Library> ComponentLoader::open(const std::filesystem::path& path)
{
    if (auto library = m_libraries[path].lock()) {
        return library;
    }
    auto library = std::make_shared<Library>(path);
    m_libraries[path] = library;
    return library;
}

std::shared_ptr<void> ComponentLoader::create(std::string_view className, std::string_view installedName, HostServices* host)
{
    auto library = open(libraryOf(className, installedName));
    auto held = std::make_shared<Held>();
    held->object = library->create(className, host);
    held->library = std::move(library);
    void* object = held->object.get();
    return std::shared_ptr<void>(std::move(held), object);
}

std::shared_ptr<LateBoundObject> ComponentLoader::createLateBound(std::string_view className, std::string_view installedName,
    HostServices* host)
{
    return std::static_pointer_cast<LateBoundObject>(create(className, installedName, host));
}

} // namespace components

#include "ComponentLoader.h"

#include <dlfcn.h>

#include <fstream>

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
        m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
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

ComponentLoader::ComponentLoader(std::filesystem::path registrations)
    : m_registrations(std::move(registrations))
{
}

ComponentLoader::~ComponentLoader() = default;

std::filesystem::path ComponentLoader::libraryOf(std::string_view className) const
{
    if (className.empty() || className.find('/') != std::string_view::npos) {
        throw ComponentError("invalid class name \"" + std::string(className) + "\"");
    }
    const auto file = m_registrations / std::string(className);
    std::ifstream in(file);
    std::string path;
    if (!in || !std::getline(in, path) || path.empty()) {
        throw ComponentError("class " + std::string(className) + " is not registered (" + file.string() + ")");
    }
    return path;
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

std::shared_ptr<void> ComponentLoader::create(std::string_view className, HostServices* host)
{
    auto library = open(libraryOf(className));
    auto held = std::make_shared<Held>();
    held->object = library->create(className, host);
    held->library = std::move(library);
    void* object = held->object.get();
    return std::shared_ptr<void>(std::move(held), object);
}

std::shared_ptr<LateBoundObject> ComponentLoader::createLateBound(std::string_view className, HostServices* host)
{
    return std::static_pointer_cast<LateBoundObject>(create(className, host));
}

} // namespace components

// The four entry points of libbelmontis. Only they are exported (belmontis.map),
// and the library binds its own symbols, so it can live in a process that also
// holds another component library with the same entry points.

#include <dlfcn.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>

#include "Ctr_Belmontis.h"
#include "DataDirectory.h"
#include "shell/ComponentEntryPoints.h"

namespace {

constexpr const char* kClassName = "Belmontis.Ctr_Belmontis";

// DllCanUnloadNow must know whether objects of this library are alive, so the
// count lives as long as the library does.
std::atomic<int> g_liveObjects{0};

// A control together with its place in the count.
struct LiveControl {
    struct Token {
        Token() { ++g_liveObjects; }
        ~Token() { --g_liveObjects; }
        Token(const Token&) = delete;
        Token& operator=(const Token&) = delete;
    };
    explicit LiveControl(HostServices* host)
        : control(host)
    {
    }
    Token token;
    belmontis::Ctr_Belmontis control;
};

void anchor() { }

std::filesystem::path libraryPath()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&anchor), &info) == 0 || !info.dli_fname) {
        return {};
    }
    std::error_code error;
    auto path = std::filesystem::canonical(info.dli_fname, error);
    return error ? std::filesystem::absolute(info.dli_fname) : path;
}

} // namespace

namespace ComponentRegistration {

std::string directory()
{
    return components::registrationDirectory().string();
}

} // namespace ComponentRegistration

extern "C" {

int DllGetClassObject(const char* className, HostServices* host, std::shared_ptr<void>* object)
{
    if (!className || std::string_view(className) != kClassName) {
        return 1;
    }
    if (!object) {
        return 2;
    }
    try {
        auto live = std::make_shared<LiveControl>(host);
        *object = std::shared_ptr<LateBoundObject>(live, &live->control);
        return 0;
    } catch (...) {
        return 2;
    }
}

int DllCanUnloadNow()
{
    return g_liveObjects.load() == 0 ? 0 : 1;
}

int DllRegisterServer()
{
    // No exception may leave an entry point (its caller may be C).
    try {
        const std::filesystem::path library = libraryPath();
        if (library.empty()) {
            return 2;
        }
        const std::filesystem::path dir = ComponentRegistration::directory();
        if (dir.empty()) {
            return 2;
        }
        // The loader trusts a registration only if nobody else may write it or its
        // folders: make them so whatever the umask.
        namespace fs = std::filesystem;
        std::error_code ec;
        for (const auto& folder : {dir.parent_path(), dir}) {
            fs::create_directories(folder, ec);
            fs::permissions(folder, fs::perms::group_write | fs::perms::others_write, fs::perm_options::remove, ec);
        }
        const fs::path file = dir / kClassName;
        {
            std::ofstream out(file, std::ios::trunc);
            out << library.string() << '\n';
            out.close();
            if (!out.good()) {
                return 2;
            }
        }
        fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read, ec);
        return ec ? 2 : 0;
    } catch (...) {
        return 2;
    }
}

int DllUnregisterServer()
{
    try {
        std::error_code ec;
        std::filesystem::remove(std::filesystem::path(ComponentRegistration::directory()) / kClassName, ec);
        return ec ? 2 : 0;
    } catch (...) {
        return 2;
    }
}
}

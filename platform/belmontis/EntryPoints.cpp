// The four entry points of libbelmontis. Only they are exported (belmontis.map),
// and the library binds its own symbols, so it can live in a process that also
// holds another component library with the same entry points.

#include <dlfcn.h>

#include <atomic>
#include <filesystem>
#include <string>

#include "Ctr_Belmontis.h"
#include "shell/DataDirectory.h"
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

// Nothing may be thrown through these C entry points.
int DllRegisterServer()
{
    try {
        return components::writeRegistration(kClassName, libraryPath());
    } catch (...) {
        return 2;
    }
}

int DllUnregisterServer()
{
    try {
        return components::removeRegistration(kClassName);
    } catch (...) {
        return 2;
    }
}
}

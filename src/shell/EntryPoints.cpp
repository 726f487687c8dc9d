#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "shell/ComponentEntryPoints.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/Variable.h"

namespace {

constexpr const char* kClassName = "Calvarine.Ctr_Calvarine";

std::filesystem::path libraryPath()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&DllRegisterServer), &info) == 0 || !info.dli_fname) {
        return {};
    }
    return std::filesystem::absolute(info.dli_fname);
}

} // namespace

namespace ComponentRegistration {

std::string directory()
{
    std::filesystem::path base;
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) {
        base = xdg;
    } else if (const char* home = std::getenv("HOME"); home && *home) {
        base = std::filesystem::path(home) / ".local" / "share";
    } else {
        base = std::filesystem::temp_directory_path();
    }
    return (base / "calvarine" / "components").string();
}

} // namespace ComponentRegistration

extern "C" {

int DllGetClassObject(const char* className, HostServices* host, std::shared_ptr<void>* object)
{
    // No exception may leave an entry point (its caller may be C): the name is
    // compared without making a string.
    if (!className || std::string_view(className) != kClassName) {
        return 1;
    }
    if (!host || !object) {
        return 2;
    }
    try {
        ++Variable::ObjetsVivants;
        *object = std::shared_ptr<Ctr_Calvarine>(new Ctr_Calvarine(*host), [](Ctr_Calvarine* control) {
            delete control;
            --Variable::ObjetsVivants;
        });
        return 0;
    } catch (...) {
        --Variable::ObjetsVivants;
        return 2;
    }
}

int DllCanUnloadNow()
{
    return Variable::ObjetsVivants == 0 ? 0 : 1;
}

int DllRegisterServer()
{
    try {
        std::error_code ec;
        const std::filesystem::path dir = ComponentRegistration::directory();
        std::filesystem::create_directories(dir, ec);
        std::ofstream out(dir / kClassName, std::ios::trunc);
        out << libraryPath().string() << '\n';
        return out.good() ? 0 : 2;
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

#include <dlfcn.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "shell/ComponentEntryPoints.h"
#include "shell/DataDirectory.h"
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
    return components::registrationDirectory().string();
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

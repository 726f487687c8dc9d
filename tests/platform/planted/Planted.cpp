// A library an attacker would plant: merely loading it writes the file named
// by PLANTED_MARKER, so a test can tell whether any of its code ran.

#include <cstdio>
#include <cstdlib>

namespace {

__attribute__((constructor)) void leaveMark()
{
    if (const char* marker = std::getenv("PLANTED_MARKER")) {
        if (std::FILE* file = std::fopen(marker, "w")) {
            std::fputs("ran\n", file);
            std::fclose(file);
        }
    }
}

} // namespace

extern "C" int DllGetClassObject(const char*, void*, void*)
{
    return 0;
}

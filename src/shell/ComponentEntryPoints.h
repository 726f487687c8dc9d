#pragma once

// The four entry points every component library exports with C linkage, for
// class creation by name, the unload test and self-registration.
//
// Registration writes one file per class under the user's data directory
// ($XDG_DATA_HOME, or ~/.local/share): calvarine/components/<class name>, which
// holds the absolute path of the library. A loader reads it, opens the library
// and asks DllGetClassObject for the class.

#include <memory>
#include <string>

class HostServices;

extern "C" {

// Creates an object of the class named className and stores it in *object.
// "Calvarine.Ctr_Calvarine" gives a Ctr_Calvarine (host is required);
// "Belmontis.Ctr_Belmontis" gives a LateBoundObject (host may be null).
// Returns 0 on success, 1 for a class the library does not hold, 2 on failure.
int DllGetClassObject(const char* className, HostServices* host, std::shared_ptr<void>* object);

// 0 when no object of the library is alive any more, 1 otherwise.
int DllCanUnloadNow();

// 0 on success, 2 when the registration could not be written or removed.
int DllRegisterServer();
int DllUnregisterServer();
}

namespace ComponentRegistration {
// The folder where registrations are written.
std::string directory();
}

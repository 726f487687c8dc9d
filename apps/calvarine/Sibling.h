#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class HostServices;
class LateBoundObject;

// The sibling printing control, created by its class name from the
// application's own library folders (a per-user registration is followed only
// when the loader trusts it; a refusal goes to warn, once).
// Throws components::ComponentError when it cannot be had.
std::shared_ptr<LateBoundObject> createBelmontis(HostServices& host, const std::vector<std::filesystem::path>& libraryFolders,
    const std::function<void(const std::string&)>& warn = {});

// Where the application's own libraries lie: beside the executable's folder.
std::vector<std::filesystem::path> applicationLibraryFolders();

// Makes the folder that paper runs are written to (--print-to) and checks
// that files can be made in it. The reason, in the system's words, when not;
// empty when ready.
std::string preparePrintFolder(const std::filesystem::path& folder);

#pragma once

#include <filesystem>
#include <memory>
#include <vector>

class HostServices;
class LateBoundObject;

// The sibling printing control, created by its class name through the
// component registrations. A library never registered (a fresh install, a
// build tree) is registered from the folders given, then created.
// Throws components::ComponentError when it cannot be had.
std::shared_ptr<LateBoundObject> createBelmontis(HostServices& host, const std::vector<std::filesystem::path>& libraryFolders);

// Where the application's own libraries lie: beside the executable's folder.
std::vector<std::filesystem::path> applicationLibraryFolders();

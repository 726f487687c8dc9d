#pragma once

// What the component loader trusts: the libraries the administrator installed
// with the application, and a per-user registration only when nobody but the
// user (or root) could have written it and it names one of those libraries.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace components {

// The folders given, as real paths; folders that do not exist are left out.
std::vector<std::filesystem::path> realFolders(const std::vector<std::filesystem::path>& folders);

// Why path cannot be trusted as written only by this user or root (owner,
// mode, kind), or nothing when it can. Symbolic links are not followed.
std::optional<std::string> untrustedBecause(const std::filesystem::path& path);

// Why a library (a real path) cannot be trusted: the library itself, and its
// folder and every folder above, none of which another user may write to
// (above its own folder, a root-owned folder with the sticky bit, as /tmp,
// is allowed: nobody may move what is not theirs there). Nothing when it can.
std::optional<std::string> libraryUntrustedBecause(const std::filesystem::path& library);

// True when path (made real) lies in a folder anyone may write to, such as
// the temporary directory.
bool inSharedTemporaryFolder(const std::filesystem::path& path);

// The library a registration file names, as a real path inside one of
// allowedFolders, once the file, its folders up to base and the library
// itself pass the checks above. Otherwise the reason, in words for the
// operator's administrator.
struct RegisteredLibrary {
    std::filesystem::path library; // empty when refused
    std::string refusal;
};
RegisteredLibrary readRegistration(const std::filesystem::path& file, const std::filesystem::path& base,
    const std::vector<std::filesystem::path>& allowedFolders);

} // namespace components

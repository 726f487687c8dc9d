#include "Trust.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace fs = std::filesystem;

namespace components {

namespace {

bool within(const fs::path& path, const fs::path& folder)
{
    auto [end, rest] = std::mismatch(folder.begin(), folder.end(), path.begin(), path.end());
    return end == folder.end();
}

std::optional<fs::path> real(const fs::path& path)
{
    std::error_code error;
    auto resolved = fs::canonical(path, error);
    return error ? std::nullopt : std::optional<fs::path>(resolved);
}

} // namespace

std::vector<fs::path> realFolders(const std::vector<fs::path>& folders)
{
    std::vector<fs::path> result;
    for (const auto& folder : folders) {
        if (auto resolved = real(folder); resolved && fs::is_directory(*resolved)
            && std::find(result.begin(), result.end(), *resolved) == result.end()) {
            result.push_back(*resolved);
        }
    }
    return result;
}

std::optional<std::string> untrustedBecause(const fs::path& path)
{
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) {
        return path.string() + ": " + std::strerror(errno);
    }
    if (S_ISLNK(info.st_mode)) {
        return path.string() + " is a symbolic link";
    }
    if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode)) {
        return path.string() + " is neither a file nor a folder";
    }
    if (info.st_uid != getuid() && info.st_uid != 0) {
        return path.string() + " belongs to user id " + std::to_string(info.st_uid) + ", not to this user or root";
    }
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return path.string() + " may be written by other users (mode " + [&] {
            char octal[8];
            std::snprintf(octal, sizeof octal, "%03o", static_cast<unsigned>(info.st_mode & 0777));
            return std::string(octal);
        }() + ")";
    }
    return std::nullopt;
}

std::optional<std::string> libraryUntrustedBecause(const fs::path& library)
{
    if (auto why = untrustedBecause(library)) {
        return why;
    }
    // Whoever may rename a folder on the way may put another library in its place.
    for (fs::path folder = library.parent_path(); !folder.empty(); folder = folder.parent_path()) {
        struct stat info {};
        if (lstat(folder.c_str(), &info) != 0) {
            return folder.string() + ": " + std::strerror(errno);
        }
        // A shared folder (/tmp) lets nobody move what is not theirs: its sticky bit.
        const bool sharedButSticky = folder != library.parent_path() && (info.st_mode & S_ISVTX) != 0 && info.st_uid == 0;
        if (!sharedButSticky) {
            if (auto why = untrustedBecause(folder)) {
                return why;
            }
        }
        if (folder == folder.parent_path()) {
            break;
        }
    }
    return std::nullopt;
}

bool inSharedTemporaryFolder(const fs::path& path)
{
    std::error_code error;
    const fs::path resolved = fs::weakly_canonical(path, error);
    const fs::path target = error ? path : resolved;
    std::vector<fs::path> shared{"/tmp", "/var/tmp", "/dev/shm"};
    if (const auto temporary = fs::temp_directory_path(error); !error) {
        shared.push_back(temporary);
    }
    for (const auto& folder : shared) {
        const auto realFolder = real(folder);
        if (within(target, realFolder.value_or(folder))) {
            return true;
        }
    }
    return false;
}

RegisteredLibrary readRegistration(const fs::path& file, const fs::path& base, const std::vector<fs::path>& allowedFolders)
{
    auto refuse = [&](const std::string& why) { return RegisteredLibrary{{}, "registration " + file.string() + " refused: " + why}; };

    if (inSharedTemporaryFolder(file)) {
        return refuse("it lies in a temporary folder that anyone may write to");
    }
    if (auto why = untrustedBecause(file)) {
        return refuse(*why);
    }
    // Its folders, up to the user's data folder, must be as private as the file.
    const auto realBase = real(base);
    const auto realFolder = real(file.parent_path());
    if (!realBase || !realFolder || !within(*realFolder, *realBase)) {
        return refuse("its folder is not inside " + base.string());
    }
    for (fs::path folder = *realFolder;; folder = folder.parent_path()) {
        if (auto why = untrustedBecause(folder)) {
            return refuse(*why);
        }
        if (folder == *realBase || folder == folder.parent_path()) {
            break;
        }
    }

    std::ifstream in(file);
    std::string named;
    if (!in || !std::getline(in, named) || named.empty()) {
        return refuse("it names no library");
    }
    const fs::path library(named);
    if (!library.is_absolute()) {
        return refuse("\"" + named + "\" is not an absolute path (a bare name would be searched for in LD_LIBRARY_PATH)");
    }
    const auto realLibrary = real(library);
    if (!realLibrary) {
        return refuse(named + " does not exist");
    }
    const bool allowed = std::any_of(allowedFolders.begin(), allowedFolders.end(),
        [&](const fs::path& folder) { return realLibrary->parent_path() == folder; });
    if (!allowed) {
        std::string folders;
        for (const auto& folder : allowedFolders) {
            folders += (folders.empty() ? "" : ", ") + folder.string();
        }
        return refuse(named + " is not in the application's library folder (" + folders + ")");
    }
    if (auto why = libraryUntrustedBecause(*realLibrary)) {
        return refuse(*why);
    }
    return {*realLibrary, {}};
}

} // namespace components

#pragma once

// Where the project keeps per-user files: $XDG_DATA_HOME/calvarine, or
// ~/.local/share/calvarine, the home folder taken from the user database when
// HOME is unset. Never a folder under the temporary directory by default: a
// shared folder anyone can write is no place for what the programs trust.
// Component registrations and the default print spool live under it.

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace components {

// The user's data folder ($XDG_DATA_HOME or ~/.local/share), or nothing when
// neither it nor the home folder can be known.
inline std::optional<std::filesystem::path> userDataBase()
{
    // The XDG rules ignore a relative XDG_DATA_HOME.
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/') {
        return std::filesystem::path(xdg);
    }
    if (const char* home = std::getenv("HOME"); home && *home == '/') {
        return std::filesystem::path(home) / ".local" / "share";
    }
    if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir && *entry->pw_dir == '/') {
        return std::filesystem::path(entry->pw_dir) / ".local" / "share";
    }
    return std::nullopt;
}

// Throws std::runtime_error when the user has no data folder at all.
inline std::filesystem::path dataDirectory()
{
    if (auto base = userDataBase()) {
        return *base / "calvarine";
    }
    throw std::runtime_error("no data folder for this user: set XDG_DATA_HOME or HOME");
}

// One file per class name, holding the absolute path of its library; empty
// when the user has no data folder.
inline std::filesystem::path registrationDirectory()
{
    auto base = userDataBase();
    return base ? *base / "calvarine" / "components" : std::filesystem::path();
}

// Registers library (an absolute path) as the one that makes className: 0, or
// 2 when it cannot. The loader trusts a registration only if nobody else may
// write it or its folders: they are made so whatever the umask.
inline int writeRegistration(std::string_view className, const std::filesystem::path& library)
{
    namespace fs = std::filesystem;
    const fs::path dir = registrationDirectory();
    if (library.empty() || dir.empty()) {
        return 2;
    }
    std::error_code ec;
    for (const auto& folder : {dir.parent_path(), dir}) {
        fs::create_directories(folder, ec);
        fs::permissions(folder, fs::perms::group_write | fs::perms::others_write, fs::perm_options::remove, ec);
    }
    {
        std::ofstream out(dir / className, std::ios::trunc);
        out << library.string() << '\n';
        out.close();
        if (!out.good()) {
            return 2;
        }
    }
    fs::permissions(dir / className, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read, ec);
    return ec ? 2 : 0;
}

// Removes the registration of className: 0, or 2 when it cannot.
inline int removeRegistration(std::string_view className)
{
    std::error_code ec;
    std::filesystem::remove(registrationDirectory() / className, ec);
    return ec ? 2 : 0;
}

} // namespace components

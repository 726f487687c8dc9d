#pragma once

// Where the project keeps per-user files: $XDG_DATA_HOME/calvarine, or
// ~/.local/share/calvarine. Component registrations and the default print spool
// live under it.

#include <cstdlib>
#include <filesystem>

namespace components {

inline std::filesystem::path dataDirectory()
{
    std::filesystem::path base;
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) {
        base = xdg;
    } else if (const char* home = std::getenv("HOME"); home && *home) {
        base = std::filesystem::path(home) / ".local" / "share";
    } else {
        base = std::filesystem::temp_directory_path();
    }
    return base / "calvarine";
}

// One file per class name, holding the absolute path of its library.
inline std::filesystem::path registrationDirectory()
{
    return dataDirectory() / "components";
}

} // namespace components

#pragma once

#include <filesystem>

#include "Demo.h"

// The demo database that calvarine makes on first use when no --db is given:
// <user data>/calvarine/demo.db. The user who makes it gets the right to print
// (options.user).
std::filesystem::path demoDatabasePath();

// Makes the demo database at file, showing its progress in a window. It is
// written beside its final place and moved there only once complete, so an
// interrupted run leaves no half database to be opened later. Throws on failure
// (DbaError from the store, std::filesystem::filesystem_error), leaving nothing
// at file.
void makeDemoDatabase(const std::filesystem::path& file, const store::DemoOptions& options);

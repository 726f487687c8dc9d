#pragma once

// Paper jobs kept as PDF files: each gets a name of its own even when several
// processes write into the same folder at the same moment.

#include <filesystem>
#include <string>

#include <QByteArray>

namespace belmontis {

// Writes pdf into folder (made if missing) as <stem><n>.pdf, n the first
// number free at that moment, and returns its path. The file appears whole
// under its final name or not at all: it is written aside, then published by
// a hard link that fails rather than replace a file another process has just
// published, and the next number is tried. Where the file system has no hard
// links it is created exclusively (O_EXCL) under its final name instead. The
// file is readable as the umask allows. Throws std::runtime_error naming the
// folder and the system's reason.
std::filesystem::path publishExclusively(const QByteArray& pdf, const std::filesystem::path& folder, const std::string& stem);

} // namespace belmontis

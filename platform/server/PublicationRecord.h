#pragma once

// The record of one publication in FUSION, kept beside the files while they
// are renamed into place: a header line, then one line per file (its name,
// escaped so that no byte breaks the line, its hidden staged and backup names,
// and the written file's device and inode), so that the next run can complete
// or undo a set that a dead run left half done.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "FusionBatch.h"

namespace server {

// The whole text of the record of files.
std::string publicationRecord(const std::vector<FusionBatch::File>& files);

// The files the record at path names; nullopt when it cannot be read as one.
std::optional<std::vector<FusionBatch::File>> readPublicationRecord(const std::filesystem::path& path);

} // namespace server

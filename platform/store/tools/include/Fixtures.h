#pragma once

// Fixtures in JSON Lines (see the import/export format of the project's docs):
// what calvarine-db imports and exports, and what tests and scenario files load.

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "Store.h"

namespace store {

// Imports every line as one transaction. A malformed line throws DbaError
// BadData naming source and line; nothing of that input is then imported.
// Records of a session-private file go to the store's session.
void importJsonLines(Store& store, std::istream& in, std::string_view source);
void importJsonLine(Store& store, std::string_view line, std::string_view source = "line");
// Writes the named files (all when empty), dictionaries first, the keys as
// stored. A file that does not exist throws DbaError NoFile before anything is written.
void exportJsonLines(Store& store, std::ostream& out, const std::vector<std::string>& files = {});

} // namespace store

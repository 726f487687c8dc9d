#pragma once

#include "Store.h"

namespace script {

inline constexpr const char* kArchiveBordCaisseExcel = "ARCHIVEBORDCAISSEEXCEL";

// Registers the server commands a scenario's database offers by default.
void registerServerCommands(store::Store& store);

} // namespace script

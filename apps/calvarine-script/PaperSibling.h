#pragma once

#include <filesystem>
#include <memory>

#include "shell/Components.h"

class HostServices;

namespace script {

// The real sibling printing control, loaded from the application's own library
// folder as the desktop host loads it, with every paper run written as a PDF
// file into spool (made if missing) instead of going to a printer.
// Every run is journaled in journal (a Store; see Ctr_Belmontis). Throws when
// the control cannot be had or the folder cannot be made.
std::shared_ptr<LateBoundObject> makeSpoolingSibling(HostServices& host, const std::filesystem::path& spool,
    std::shared_ptr<DbaDatabase> journal);

} // namespace script

#pragma once

// Module Procedure.

#include <string_view>

class Control;

namespace Procedure {

void OuvrirFichiers();
void FermerFichiers();
// True when an entry of list equals text exactly.
bool ExisteDansListe(std::string_view text, const Control& list);

} // namespace Procedure

#include "shell/Procedure.h"

#include <stdexcept>

#include "database/FileNames.h"
#include "shell/Control.h"
#include "shell/Variable.h"
#include "shell/ObjectRef.h"

namespace Procedure {

void OuvrirFichiers()
{
    using namespace Variable;
    if (!TheDatabase) {
        throw std::runtime_error("OuvrirFichiers: no database was given");
    }
    F_Activites = Obj(TheDatabase, "TheDatabase").OpenFile(FileNames::ACTIVITES);
    F_Association = Obj(TheDatabase, "TheDatabase").OpenFile(FileNames::ASSOCIATION);
    F_FacturOrg = Obj(TheDatabase, "TheDatabase").OpenFile(FileNames::FACTURORG);
    F_OrgPriseCharge = Obj(TheDatabase, "TheDatabase").OpenFile(FileNames::ORGPRISECHARGE);
    F_PeriodesPaie = Obj(TheDatabase, "TheDatabase").OpenFile(FileNames::PERIODESPAIE);
    F_Tempo = Obj(TheDatabase, "TheDatabase").OpenFile(FileNames::TEMPO);
}

void FermerFichiers()
{
    using namespace Variable;
    I_Association.reset();
    I_OrgPriseCharge.reset();
    I_PeriodesPaie.reset();
    I_Tempo.reset();
    F_Activites.reset();
    F_Association.reset();
    F_FacturOrg.reset();
    F_OrgPriseCharge.reset();
    F_PeriodesPaie.reset();
    F_Tempo.reset();
    TheDatabase.reset();
}

bool ExisteDansListe(std::string_view text, const Control& list)
{
    const std::size_t hash = Control::hashOf(text);
    const std::int16_t count = list.listCount();
    for (std::int16_t i = 0; i < count; ++i) {
        if (list.entryEquals(i, text, hash)) {
            return true;
        }
    }
    return false;
}

} // namespace Procedure

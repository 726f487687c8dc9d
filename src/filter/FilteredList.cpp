#include "shell/Ctr_Calvarine.h"
#include "shell/ErrorTrap.h"

void Ctr_Calvarine::Remplir_Liste_Filtre()
{
    ErrorTrap trap;
    Lst_OrgaPos.clear();
    Lst_CodeOrgaPos.clear();
    std::string sentence;
    trap.step([&] {
        sentence = "SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = \"" + period("yyyymm") + "\" AND AVEC 0 = \"" + Txt_Entite.text();
        if (Opt_Org.value()) {
            sentence += activityLetter() + Txt_Tri.text() + "]\"";
        } else {
            sentence += activityLetter() + "]\" AND AVEC NumFactArchive = \"" + Cbo_Tri.text() + "\"";
        }
        sentence += " PAR NumFactArchive";
    });
    selectArchive(sentence);
    fillPossiblePair();
}

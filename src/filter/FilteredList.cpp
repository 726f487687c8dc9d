#include "archive/Archive.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/ErrorTrap.h"

void Ctr_Calvarine::Remplir_Liste_Filtre()
{
    ErrorTrap trap;
    Lst_OrgaPos.clear();
    Lst_CodeOrgaPos.clear();
    std::string sentence;
    trap.step([&] {
        sentence = Opt_Org.value() ? archive::organisationSentence(period("yyyymm"), Txt_Entite.text(), activityLetter(), Txt_Tri.text())
                                   : archive::invoiceSentence(period("yyyymm"), Txt_Entite.text(), activityLetter(), Cbo_Tri.text());
    });
    selectArchive(sentence);
    fillPossiblePair();
}

#include <stdexcept>

#include "archive/Archive.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/HostServices.h"
#include "shell/Variable.h"
#include "shell/Int16.h"

void Ctr_Calvarine::Cmd_Imprimer_Click()
{
    Tab_Selection = std::make_shared<DbaDynArray>();
    const std::int16_t count = Lst_CodeOrgaSel.listCount();
    if (count == 0) {
        m_screen.host().msgBox("Vous devez sélectionner au moins un bordereau a rééditer.", 48, "Message Trivalden");
        Cmd_Imprimer.setEnabled(false);
        return;
    }
    for (std::int16_t i = 0; i < count; ++i) {
        archive::setSelectionEntry(*Tab_Selection, CInt16(i + 1), archive::parseCodeLine(Lst_CodeOrgaSel.list(i)));
    }

    if (Opt_Papier.value()) {
        // The paper run: the sibling control takes the selection and its scope.
        Variable::B_Edition = false;
        Variant drapeauVrai = true;
        LateBoundObject* belmontis = Ctr_Belmontis1.object().get();
        if (!belmontis) {
            throw std::runtime_error("Ctr_Belmontis1: the printing control is not on the form");
        }
        Variant base = Variable::TheDatabase;
        belmontis->setProperty("BaseEdition", base);
        Variant client = Variable::TheClient;
        belmontis->setProperty("ClientEdition", client);
        Variant periode = period("yyyymm");
        belmontis->setProperty("W_Periode", periode);
        Variant entite = Txt_Entite.text();
        belmontis->setProperty("W_Entite", entite);
        const std::string letter = activityLetter();
        Variant activite = letter;
        belmontis->setProperty("W_Activite", activite);
        Variant libelle = archive::activityLabel(letter);
        belmontis->setProperty("W_LibelleActivite", libelle);
        belmontis->setProperty("W_DrapeauVrai", drapeauVrai);
        Variant drapeauFaux = Variable::B_Edition;
        belmontis->setProperty("W_DrapeauFaux", drapeauFaux);
        Variant entiteBis = Txt_Entite.text();
        belmontis->setProperty("W_EntiteBis", entiteBis);
        Variant papier = Opt_Papier.value();
        belmontis->setProperty("W_Papier", papier);
        Variant selection = Tab_Selection;
        belmontis->invoke("Editer_Bordereaux", {std::ref(selection)});
    } else {
        PickExe();
    }

    // Back to the start-up presentation, the period kept.
    Vider_Champs();
    Txt_Entite.setText("");
    Cbo_Entite.setText("");
    Cbo_Tri.clear();
    Txt_Tri.setText("");
    Masquer_Depart();
    Opt_Papier.setValue(true);
    if (Cbo_Entite.listCount() == 1) {
        Cbo_Entite.setListIndex(0);
    }
}

#include "database/FileNames.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/HostServices.h"
#include "shell/Variable.h"
#include "shell/ObjectRef.h"

void Ctr_Calvarine::Afficher_Activite()
{
    Opt_Prest.setValue(false);
    Opt_Mandat.setValue(false);
    Opt_Inter.setValue(false);
    for (std::int16_t i = 0; i < m_screen.count(); ++i) {
        Control& control = m_screen.at(i);
        if (control.name() == "Ctr_Belmontis1") {
            continue;
        }
        const bool off = &control == &Opt_Prest || &control == &Opt_Mandat || &control == &Opt_Inter
            || &control == &Cbo_Periode || &control == &Cdr_Select;
        control.setEnabled(!off);
    }
    putUpWaitState();
    DbaDynArray request;
    request.setAttribute(1, "SSELECT ACTIVITES AVEC 0 = \"" + Txt_Entite.text() + "]\"");
    request.setAttribute(2, FileNames::ACTIVITES);
    request.setAttribute(3, "0 12");
    std::int32_t status = 0;
    const DbaDynArray result = Obj(Variable::TheDatabase, "TheDatabase").Select(request.text(), "", status);
    m_screen.host().doEvents();
    takeDownWaitState();

    // The walk reads at least one attribute, so an empty result ends after one pass.
    std::int16_t i = 1;
    do {
        const std::string letter = result.value(i, 2);
        if (letter == "P") {
            Opt_Prest.setEnabled(true);
        } else if (letter == "M") {
            Opt_Mandat.setEnabled(true);
        } else if (letter == "I") {
            Opt_Inter.setEnabled(true);
        }
        ++i;
    } while (!result.attribute(i).empty());

    if (Opt_Prest.enabled() && !Opt_Mandat.enabled() && !Opt_Inter.enabled()) {
        Opt_Prest.setValue(true);
    } else if (Opt_Mandat.enabled() && !Opt_Prest.enabled() && !Opt_Inter.enabled()) {
        Opt_Mandat.setValue(true);
    } else if (Opt_Inter.enabled() && !Opt_Prest.enabled() && !Opt_Mandat.enabled()) {
        Opt_Inter.setValue(true);
    }
    applyPrintRule();
}

// The three activity options share one handler: the query finds the activity
// from the options themselves.
void Ctr_Calvarine::Opt_Prest_Click()
{
    Requete_Liste();
    applyPrintRule();
    Cdr_Select.setEnabled(true);
    Opt_Tous.setValue(true);
}

void Ctr_Calvarine::Opt_Mandat_Click()
{
    Opt_Prest_Click();
}

void Ctr_Calvarine::Opt_Inter_Click()
{
    Opt_Prest_Click();
}

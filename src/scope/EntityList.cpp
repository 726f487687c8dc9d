#include "database/FileNames.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/HostServices.h"
#include "shell/Text.h"
#include "shell/Variable.h"
#include "shell/ObjectRef.h"

void Ctr_Calvarine::Remplir_Combo_Entite()
{
    putUpWaitState();
    Cbo_Entite.clear();
    DbaDynArray request;
    request.setAttribute(1, "SSELECT ACTIVITES AVEC 12 = \"P\" OR = \"M\" OR = \"I\" PAR 0");
    request.setAttribute(2, FileNames::ACTIVITES);
    request.setAttribute(3, "0");
    std::int32_t status = 0;
    Tab_EntiteRecherche = std::make_shared<DbaDynArray>(Obj(Variable::TheDatabase, "TheDatabase").Select(request.text(), "", status));
    Tab_Entite = std::make_shared<DbaDynArray>();
    m_screen.host().doEvents();
    takeDownWaitState();
    if (Tab_EntiteRecherche->attribute(1).empty()) {
        return;
    }
    putUpWaitState();
    std::string lastCode;
    std::int16_t row = 1;
    const std::int16_t n = Tab_EntiteRecherche->DCount();
    for (int i = 1; i <= n; ++i) {
        const std::string code = Text::Left(Tab_EntiteRecherche->attribute(i), 3);
        if (code == lastCode) {
            continue;
        }
        lastCode = code;
        Tab_Entite->setValue(row, 1, code);
        Variable::I_Association = Obj(Variable::F_Association, "F_Association").ReadItem(code);
        Tab_Entite->setValue(row, 2, Obj(Variable::I_Association, "I_Association").attribute(1));
        ++row;
    }
    Tab_EntiteRecherche->setText("");
    const std::int16_t count = Tab_Entite->DCount();
    for (int i = 1; i <= count; ++i) {
        Cbo_Entite.addItem(Tab_Entite->value(i, 2));
    }
    m_screen.host().doEvents();
    takeDownWaitState();
}

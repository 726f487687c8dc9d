#include <string>

#include "database/FileNames.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/HostServices.h"
#include "shell/Text.h"
#include "shell/Variable.h"
#include "shell/ObjectRef.h"


void Ctr_Calvarine::Remplir_Combo_Periode()
{
    Variable::I_PeriodesPaie = Obj(Variable::F_PeriodesPaie, "F_PeriodesPaie").ReadItem(Keys::PeriodeCourante);
    const std::string current = std::to_string(Text::CLng(Obj(Variable::I_PeriodesPaie, "I_PeriodesPaie").attribute(1)));
    std::string month = Text::Mid(current, 5, 2);
    std::string year = Text::Mid(current, 1, 4);
    for (int n = 0; n < 120; ++n) {
        const std::string date = "01/" + month + "/" + year;
        Cbo_Periode.addItem(Text::UCase(m_screen.host().formatDate(date, "mmmm yyyy")));
        const std::string previous = std::to_string(Text::CLng(month) - 1);
        if (previous == "0") {
            month = "12";
            year = std::to_string(Text::CLng(year) - 1);
        } else {
            month = Text::String(2 - Text::Len(previous), '0') + previous;
        }
    }
    Cbo_Periode.setListIndex(0);
}

void Ctr_Calvarine::Cbo_Periode_Click()
{
    if (Txt_Entite.text().empty()) {
        return;
    }
    m_screen.host().doEvents();
    Requete_Liste();
}

#include <algorithm>
#include <array>
#include <string_view>

#include "shell/Ctr_Calvarine.h"

namespace {

bool isOneOf(const std::string& name, std::initializer_list<std::string_view> names)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

void Ctr_Calvarine::Masquer_Depart()
{
    for (std::int16_t i = 0; i < m_screen.count(); ++i) {
        Control& control = m_screen.at(i);
        if (control.name() == "Ctr_Belmontis1") {
            continue;
        }
        control.setEnabled(isOneOf(control.name(), {"Txt_Entite", "Cbo_Entite", "Etq_Entite", "Etq_Periode", "Cbo_Periode", "Cmd_Sortir"}));
    }
}

void Ctr_Calvarine::Afficher()
{
    for (std::int16_t i = 0; i < m_screen.count(); ++i) {
        Control& control = m_screen.at(i);
        if (control.name() == "Ctr_Belmontis1") {
            continue;
        }
        control.setEnabled(!isOneOf(control.name(), {"Cbo_Periode", "Cmd_Imprimer", "Cdr_Select"}));
    }
}

void Ctr_Calvarine::Vider_Champs()
{
    Opt_Prest.setValue(false);
    Opt_Mandat.setValue(false);
    Opt_Inter.setValue(false);
    Lst_OrgaPos.clear();
    Lst_OrgaSel.clear();
    Lst_CodeOrgaSel.clear();
    Lst_CodeOrgaPos.clear();
    Cbo_Tri.clear();
    Txt_Tri.setText("");
}

#include <stdexcept>

#include "shell/Ctr_Calvarine.h"
#include "shell/HostServices.h"
#include "shell/Text.h"
#include "shell/Int16.h"

namespace {

constexpr const char* kTitle = "Message TRIVALDEN";

} // namespace

void Ctr_Calvarine::Txt_Entite_Change()
{
    if (Text::Len(Txt_Entite.text()) != 3) {
        Cbo_Entite.setText("");
        Vider_Champs();
        Masquer_Depart();
        Cmd_Imprimer.setEnabled(false);
        return;
    }
    const std::int16_t count = Tab_Entite ? Tab_Entite->DCount() : 0;
    for (int i = 1; i <= count; ++i) {
        if (Txt_Entite.text() == Tab_Entite->value(i, 1)) {
            Cbo_Entite.setText(Tab_Entite->value(i, 2));
            Vider_Champs();
            Afficher();
            Afficher_Activite();
            return;
        }
    }
    m_screen.host().msgBox("Cette entité juridique n'existe pas.", 48, kTitle);
    Txt_Entite.setText("");
    Txt_Entite.setFocus();
    Cmd_Imprimer.setEnabled(false);
}

void Ctr_Calvarine::Txt_Entite_KeyPress(std::int16_t& KeyAscii)
{
    if (KeyAscii == 13) {
        Txt_Entite.setText(Text::String(3 - Text::Len(Txt_Entite.text()), '0') + Txt_Entite.text());
    }
}

void Ctr_Calvarine::Txt_Entite_LostFocus()
{
    const auto length = Text::Len(Txt_Entite.text());
    if (length > 0 && length < 3) {
        Txt_Entite.setText(Text::String(3 - length, '0') + Txt_Entite.text());
    }
}

void Ctr_Calvarine::Cbo_Entite_Change()
{
    if (Cbo_Entite.text().empty()) {
        Txt_Entite.setText("");
        Vider_Champs();
    }
}

void Ctr_Calvarine::Cbo_Entite_Click()
{
    if (Cbo_Entite.text().empty()) {
        return;
    }
    const std::int16_t row = CInt16(Cbo_Entite.listIndex() + 1);
    const bool searching = Tab_EntiteRecherche && !Tab_EntiteRecherche->text().empty();
    const auto& table = searching ? Tab_EntiteRecherche : Tab_Entite;
    if (!table) {
        throw std::logic_error("Cbo_Entite_Click: the entity table is not filled");
    }
    Txt_Entite.setText(table->value(row, 1));
}

void Ctr_Calvarine::Cbo_Entite_KeyPress(std::int16_t& KeyAscii)
{
    if (KeyAscii != 13) {
        if (KeyAscii > 122) {
            m_screen.host().msgBox("La saisie de minuscule accentuée est interdite sur cette zone.", 48, kTitle);
            KeyAscii = 0;
        }
        return;
    }

    // Search of the names that begin with the typed text.
    putUpWaitState();
    const std::string typed = Cbo_Entite.text();
    const std::int32_t n = Text::Len(typed);
    const std::int16_t count = Tab_Entite ? Tab_Entite->DCount() : 0;
    Cbo_Entite.clear();
    if (!Tab_EntiteRecherche) {
        Tab_EntiteRecherche = std::make_shared<DbaDynArray>();
    }
    Tab_EntiteRecherche->setText("");
    const std::string wanted = Text::UCase(typed);
    std::int16_t row = 1;
    for (int i = 1; i <= count; ++i) {
        if (Text::Left(Tab_Entite->value(i, 2), n) == wanted) {
            Tab_EntiteRecherche->setValue(row, 1, Tab_Entite->value(i, 1));
            Tab_EntiteRecherche->setValue(row, 2, Tab_Entite->value(i, 2));
            ++row;
            Cbo_Entite.addItem(Tab_Entite->value(i, 2));
        }
    }
    if (Tab_EntiteRecherche->DCount() == 1) {
        Txt_Entite.setText(Tab_EntiteRecherche->value(1, 1));
        Cbo_Entite.setText(Tab_EntiteRecherche->value(1, 2));
    }
    if (Tab_EntiteRecherche->text().empty()) {
        m_screen.host().beep();
        m_screen.host().msgBox("Aucune entité commençant par " + wanted, 48, kTitle);
    }
    m_screen.host().doEvents();
    takeDownWaitState();
}

#include "shell/Ctr_Calvarine.h"
#include "shell/HostServices.h"
#include "shell/Text.h"

// The three filter options are one procedure with two values: which of the
// code box and the choice list show.
void Ctr_Calvarine::Opt_Tous_Click()
{
    Txt_Tri.setVisible(false);
    Cbo_Tri.setVisible(false);
    Requete_Liste();
    applyPrintRule();
}

void Ctr_Calvarine::Opt_NumFact_Click()
{
    Txt_Tri.setVisible(false);
    Cbo_Tri.setVisible(true);
    Requete_Liste();
    applyPrintRule();
}

void Ctr_Calvarine::Opt_Org_Click()
{
    Txt_Tri.setVisible(true);
    Cbo_Tri.setVisible(true);
    Requete_Liste();
    applyPrintRule();
}

std::string Ctr_Calvarine::paddedCode(const std::string& digits) const
{
    return Text::String(Txt_Tri.maxLength() - Text::Len(digits), '0') + digits;
}

void Ctr_Calvarine::Txt_tri_KeyPress(std::int16_t& KeyAscii)
{
    if ((KeyAscii >= 48 && KeyAscii <= 57) || KeyAscii == 8 || KeyAscii == 9) {
        return;
    }
    if (KeyAscii == 13) {
        Txt_tri_LostFocus();
        return;
    }
    KeyAscii = 0;
}

void Ctr_Calvarine::Txt_tri_LostFocus()
{
    if (!Txt_Tri.text().empty()) {
        Txt_Tri.setText(paddedCode(Txt_Tri.text()));
    }
}

void Ctr_Calvarine::Txt_tri_Change()
{
    if (Text::Len(Txt_Tri.text()) != 3) {
        Cbo_Tri.setText("");
        return;
    }
    if (!Cbo_Tri.text().empty()) {
        return; // the combo has settled the code already
    }
    const std::int16_t count = Cbo_Tri.listCount();
    for (std::int16_t i = 0; i < count; ++i) {
        if (Txt_Tri.text() == paddedCode(std::to_string(Cbo_Tri.itemData(i)))) {
            Cbo_Tri.setListIndex(i);
            Remplir_Liste_Filtre();
            return;
        }
    }
    m_screen.host().msgBox("Cet organisme n'existe pas.", 48, "Message Trivalden");
    Txt_Tri.setText("");
    if (Txt_Tri.enabled() && Txt_Tri.visible()) {
        Txt_Tri.setFocus();
    }
}

void Ctr_Calvarine::Cbo_Tri_Change()
{
    if (Cbo_Tri.text().empty()) {
        Txt_Tri.setText("");
    }
}

void Ctr_Calvarine::Cbo_Tri_Click()
{
    if (Cbo_Tri.listIndex() == -1) {
        Txt_Tri.setText("");
        return;
    }
    if (Opt_Org.value()) {
        Txt_Tri.setText(paddedCode(std::to_string(Cbo_Tri.itemData(Cbo_Tri.listIndex()))));
    }
    Remplir_Liste_Filtre();
}

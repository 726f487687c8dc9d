#include "shell/Ctr_Calvarine.h"
#include "shell/Procedure.h"
#include "shell/Int16.h"

#include <string>
#include <unordered_set>

void Ctr_Calvarine::Passage_A_Droite()
{
    const std::int16_t last = CInt16(Lst_OrgaPos.listCount() - 1);
    for (std::int16_t i = 0; i <= last; ++i) {
        if (Lst_OrgaPos.selected(i) && !Procedure::ExisteDansListe(Lst_OrgaPos.list(i), Lst_OrgaSel)) {
            Lst_OrgaSel.addItem(Lst_OrgaPos.list(i));
            Lst_CodeOrgaSel.addItem(Lst_CodeOrgaPos.list(i));
        }
        Lst_OrgaPos.setSelected(i, false);
    }
    if (Lst_OrgaSel.listCount() != 0) {
        Cmd_Imprimer.setEnabled(true);
    }
}

void Ctr_Calvarine::Passage_A_Gauche()
{
    for (std::int16_t i = CInt16(Lst_OrgaSel.listCount() - 1); i >= 0; --i) {
        if (Lst_OrgaSel.selected(i)) {
            Lst_OrgaSel.removeItem(i);
            Lst_CodeOrgaSel.removeItem(i);
        }
    }
    if (Lst_OrgaSel.listCount() == 0) {
        Cmd_Imprimer.setEnabled(false);
    }
}

void Ctr_Calvarine::Cmd_Tous_Click()
{
    // The rule of ExisteDansListe (an entry whose text the selection already
    // holds, or got earlier in this loop, is not added again), with the
    // selection's texts in a set: one look-up per entry instead of a scan.
    std::unordered_set<std::string> selected;
    selected.reserve(static_cast<std::size_t>(Lst_OrgaSel.listCount() + Lst_OrgaPos.listCount()));
    for (std::int16_t i = 0; i < Lst_OrgaSel.listCount(); ++i) {
        selected.insert(Lst_OrgaSel.list(i));
    }
    const std::int16_t last = CInt16(Lst_OrgaPos.listCount() - 1);
    for (std::int16_t i = 0; i <= last; ++i) {
        if (selected.insert(Lst_OrgaPos.list(i)).second) {
            Lst_OrgaSel.addItem(Lst_OrgaPos.list(i));
            Lst_CodeOrgaSel.addItem(Lst_CodeOrgaPos.list(i));
        }
    }
    if (Lst_OrgaSel.listCount() != 0) {
        Cmd_Imprimer.setEnabled(true);
    }
}

void Ctr_Calvarine::Cmd_PasseDroit_Click()
{
    Passage_A_Droite();
}

void Ctr_Calvarine::Lst_OrgaPos_DblClick()
{
    Passage_A_Droite();
}

void Ctr_Calvarine::Lst_OrgaSel_DragDrop()
{
    Passage_A_Droite();
}

void Ctr_Calvarine::Cmd_PasseGauche_Click()
{
    Passage_A_Gauche();
}

void Ctr_Calvarine::Lst_OrgaSel_DblClick()
{
    Passage_A_Gauche();
}

void Ctr_Calvarine::Lst_OrgaPos_DragDrop()
{
    Passage_A_Gauche();
}

// Any press on a visible list begins a drag; the toolkit turns it into a click
// when the button is released where it was pressed.
void Ctr_Calvarine::Lst_OrgaPos_MouseDown(std::int16_t&, std::int16_t&, float&, float&)
{
    Lst_OrgaPos.drag();
}

void Ctr_Calvarine::Lst_OrgaSel_MouseDown(std::int16_t&, std::int16_t&, float&, float&)
{
    Lst_OrgaSel.drag();
}

// The index copies keep the hidden code list on the same statement as its
// visible list; a copy that changes nothing raises no further Click.
void Ctr_Calvarine::Lst_OrgaPos_Click()
{
    Lst_CodeOrgaPos.setListIndex(Lst_OrgaPos.listIndex());
}

void Ctr_Calvarine::Lst_CodeOrgaPos_Click()
{
    Lst_OrgaPos.setListIndex(Lst_CodeOrgaPos.listIndex());
}

void Ctr_Calvarine::Lst_OrgaSel_Click()
{
    Lst_CodeOrgaSel.setListIndex(Lst_OrgaSel.listIndex());
}

void Ctr_Calvarine::Lst_CodeOrgaSel_Click()
{
    Lst_OrgaSel.setListIndex(Lst_CodeOrgaSel.listIndex());
}

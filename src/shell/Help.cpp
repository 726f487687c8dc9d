#include "shell/Ctr_Calvarine.h"
#include "shell/HostServices.h"
#include "shell/Variable.h"
#include "shell/ObjectRef.h"

// The right button opens the help menu. Its entries are enabled again at each
// press, since the start-up presentation disables them.
void Ctr_Calvarine::UserControl_MouseDown(std::int16_t& Button, std::int16_t&, float&, float&)
{
    if (Button != 2) {
        return;
    }
    Mnu_Aide.setEnabled(true);
    Mnu_Sommaire.setEnabled(true);
    m_screen.host().popupMenu(Mnu_Aide);
}

void Ctr_Calvarine::Cdr_Activite_MouseDown(std::int16_t& Button, std::int16_t& Shift, float& x, float& y)
{
    UserControl_MouseDown(Button, Shift, x, y);
}

void Ctr_Calvarine::Mnu_Sommaire_Click()
{
    if (!Variable::AideEnLigne) {
        Variable::AideEnLigne = m_screen.host().createHelp();
    }
    Obj(Variable::AideEnLigne, "AideEnLigne").Client(Variable::TheClient);
    Obj(Variable::AideEnLigne, "AideEnLigne").Base(Variable::TheDatabase);
    std::string page = "Calvarine.htm";
    std::string mode = "P";
    std::string title = "Calvarine";
    Obj(Variable::AideEnLigne, "AideEnLigne").AfficherPage(page, mode, title);
}

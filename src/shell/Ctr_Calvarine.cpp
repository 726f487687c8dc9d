#include "shell/Ctr_Calvarine.h"

#include "shell/HostServices.h"
#include "shell/Procedure.h"
#include "shell/Variable.h"
#include "shell/ObjectRef.h"

Ctr_Calvarine::Ctr_Calvarine(HostServices& host)
    : m_screen(host)
    , Cbo_Entite(m_screen.get("Cbo_Entite"))
    , Cdr_Activite(m_screen.get("Cdr_Activite"))
    , Opt_Inter(m_screen.get("Opt_Inter"))
    , Opt_Mandat(m_screen.get("Opt_Mandat"))
    , Opt_Prest(m_screen.get("Opt_Prest"))
    , Txt_Entite(m_screen.get("Txt_Entite"))
    , Cbo_Periode(m_screen.get("Cbo_Periode"))
    , Lst_OrgaPos(m_screen.get("Lst_OrgaPos"))
    , Cmd_PasseGauche(m_screen.get("Cmd_PasseGauche"))
    , Cmd_PasseDroit(m_screen.get("Cmd_PasseDroit"))
    , Cmd_Tous(m_screen.get("Cmd_Tous"))
    , Lst_OrgaSel(m_screen.get("Lst_OrgaSel"))
    , Cmd_Sortir(m_screen.get("Cmd_Sortir"))
    , Cmd_Imprimer(m_screen.get("Cmd_Imprimer"))
    , Lst_CodeOrgaPos(m_screen.get("Lst_CodeOrgaPos"))
    , Lst_CodeOrgaSel(m_screen.get("Lst_CodeOrgaSel"))
    , Ctr_Belmontis1(m_screen.get("Ctr_Belmontis1"))
    , Opt_Papier(m_screen.get("Opt_Papier"))
    , Opt_Fichier(m_screen.get("Opt_Fichier"))
    , Cdr_Select(m_screen.get("Cdr_Select"))
    , Opt_Org(m_screen.get("Opt_Org"))
    , Opt_NumFact(m_screen.get("Opt_NumFact"))
    , Cbo_Tri(m_screen.get("Cbo_Tri"))
    , Txt_Tri(m_screen.get("Txt_Tri"))
    , Opt_Tous(m_screen.get("Opt_Tous"))
    , Mnu_Aide(m_screen.get("Mnu_Aide"))
    , Mnu_Sommaire(m_screen.get("Mnu_Sommaire"))
    , UserControl(m_screen.userControl())
{
    bindHandlers();
}

Ctr_Calvarine::~Ctr_Calvarine()
{
    terminate();
}

void Ctr_Calvarine::bindHandlers()
{
    auto on = [this](Control& control, Event event, const char* name, void (Ctr_Calvarine::*handler)()) {
        control.handle(event, name, [this, handler](EventArgs&) { (this->*handler)(); });
    };
    auto onKey = [this](Control& control, const char* name, void (Ctr_Calvarine::*handler)(std::int16_t&)) {
        control.handle(Event::KeyPress, name, [this, handler](EventArgs& a) { (this->*handler)(a.keyAscii); });
    };
    auto onMouse = [this](Control& control, const char* name,
                       void (Ctr_Calvarine::*handler)(std::int16_t&, std::int16_t&, float&, float&)) {
        control.handle(Event::MouseDown, name, [this, handler](EventArgs& a) { (this->*handler)(a.button, a.shift, a.x, a.y); });
    };

    on(Cbo_Periode, Event::Click, "Cbo_Periode_Click", &Ctr_Calvarine::Cbo_Periode_Click);
    onMouse(Cdr_Activite, "Cdr_Activite_MouseDown", &Ctr_Calvarine::Cdr_Activite_MouseDown);
    on(Cmd_Sortir, Event::Click, "Cmd_Sortir_Click", &Ctr_Calvarine::Cmd_Sortir_Click);
    on(Mnu_Sommaire, Event::Click, "Mnu_Sommaire_Click", &Ctr_Calvarine::Mnu_Sommaire_Click);
    onMouse(UserControl, "UserControl_MouseDown", &Ctr_Calvarine::UserControl_MouseDown);
    on(Cbo_Entite, Event::Click, "Cbo_Entite_Click", &Ctr_Calvarine::Cbo_Entite_Click);
    onKey(Cbo_Entite, "Cbo_Entite_KeyPress", &Ctr_Calvarine::Cbo_Entite_KeyPress);
    onKey(Txt_Entite, "Txt_Entite_KeyPress", &Ctr_Calvarine::Txt_Entite_KeyPress);
    on(Txt_Entite, Event::LostFocus, "Txt_Entite_LostFocus", &Ctr_Calvarine::Txt_Entite_LostFocus);
    on(Cbo_Entite, Event::Change, "Cbo_Entite_Change", &Ctr_Calvarine::Cbo_Entite_Change);
    on(Txt_Entite, Event::Change, "Txt_Entite_Change", &Ctr_Calvarine::Txt_Entite_Change);
    on(Opt_Inter, Event::Click, "Opt_Inter_Click", &Ctr_Calvarine::Opt_Inter_Click);
    on(Opt_Mandat, Event::Click, "Opt_Mandat_Click", &Ctr_Calvarine::Opt_Mandat_Click);
    on(Opt_Prest, Event::Click, "Opt_Prest_Click", &Ctr_Calvarine::Opt_Prest_Click);
    on(Cmd_Tous, Event::Click, "Cmd_Tous_Click", &Ctr_Calvarine::Cmd_Tous_Click);
    on(Lst_OrgaSel, Event::DblClick, "Lst_OrgaSel_DblClick", &Ctr_Calvarine::Lst_OrgaSel_DblClick);
    on(Lst_OrgaSel, Event::DragDrop, "Lst_OrgaSel_DragDrop", &Ctr_Calvarine::Lst_OrgaSel_DragDrop);
    onMouse(Lst_OrgaSel, "Lst_OrgaSel_MouseDown", &Ctr_Calvarine::Lst_OrgaSel_MouseDown);
    on(Lst_OrgaSel, Event::Click, "Lst_OrgaSel_Click", &Ctr_Calvarine::Lst_OrgaSel_Click);
    on(Lst_CodeOrgaSel, Event::Click, "Lst_CodeOrgaSel_Click", &Ctr_Calvarine::Lst_CodeOrgaSel_Click);
    on(Cmd_PasseGauche, Event::Click, "Cmd_PasseGauche_Click", &Ctr_Calvarine::Cmd_PasseGauche_Click);
    on(Lst_OrgaPos, Event::DblClick, "Lst_OrgaPos_DblClick", &Ctr_Calvarine::Lst_OrgaPos_DblClick);
    on(Lst_OrgaPos, Event::DragDrop, "Lst_OrgaPos_DragDrop", &Ctr_Calvarine::Lst_OrgaPos_DragDrop);
    onMouse(Lst_OrgaPos, "Lst_OrgaPos_MouseDown", &Ctr_Calvarine::Lst_OrgaPos_MouseDown);
    on(Lst_OrgaPos, Event::Click, "Lst_OrgaPos_Click", &Ctr_Calvarine::Lst_OrgaPos_Click);
    on(Lst_CodeOrgaPos, Event::Click, "Lst_CodeOrgaPos_Click", &Ctr_Calvarine::Lst_CodeOrgaPos_Click);
    on(Cmd_PasseDroit, Event::Click, "Cmd_PasseDroit_Click", &Ctr_Calvarine::Cmd_PasseDroit_Click);
    on(Cmd_Imprimer, Event::Click, "Cmd_Imprimer_Click", &Ctr_Calvarine::Cmd_Imprimer_Click);
    on(Txt_Tri, Event::Change, "Txt_tri_Change", &Ctr_Calvarine::Txt_tri_Change);
    onKey(Txt_Tri, "Txt_tri_KeyPress", &Ctr_Calvarine::Txt_tri_KeyPress);
    on(Txt_Tri, Event::LostFocus, "Txt_tri_LostFocus", &Ctr_Calvarine::Txt_tri_LostFocus);
    on(Cbo_Tri, Event::Change, "Cbo_Tri_Change", &Ctr_Calvarine::Cbo_Tri_Change);
    on(Cbo_Tri, Event::Click, "Cbo_Tri_Click", &Ctr_Calvarine::Cbo_Tri_Click);
    on(Opt_Org, Event::Click, "Opt_Org_Click", &Ctr_Calvarine::Opt_Org_Click);
    on(Opt_Tous, Event::Click, "Opt_Tous_Click", &Ctr_Calvarine::Opt_Tous_Click);
    on(Opt_NumFact, Event::Click, "Opt_NumFact_Click", &Ctr_Calvarine::Opt_NumFact_Click);
}

void Ctr_Calvarine::DroitsUtilisateur(std::shared_ptr<SorbelaneDroits>& New_DroitsUtilisateur)
{
    Droits = New_DroitsUtilisateur;
    DroitEcran = Obj(Droits, "Droits").LireDroit("CALVARINE");
}

void Ctr_Calvarine::TheClient(std::shared_ptr<DbaClient> vNewValue)
{
    Variable::TheClient = std::move(vNewValue);
}

void Ctr_Calvarine::TheDatabase(std::shared_ptr<DbaDatabase> vNewValue)
{
    Variable::TheDatabase = std::move(vNewValue);
}

void Ctr_Calvarine::Init()
{
    putUpWaitState();
    Procedure::OuvrirFichiers();
    Masquer_Depart();
    Remplir_Combo_Periode();
    Remplir_Combo_Entite();
    m_screen.host().doEvents();
    takeDownWaitState();
    if (Txt_Entite.enabled()) {
        Txt_Entite.setFocus();
    }
    if (Cbo_Entite.listCount() == 1) {
        Cbo_Entite.setListIndex(0);
    }
    Appliquer_Droits();
}

void Ctr_Calvarine::Appliquer_Droits()
{
    if (!DroitEcran) {
        throw std::runtime_error("Appliquer_Droits: the user's rights were not given");
    }
    if (Obj(DroitEcran, "DroitEcran").Niveau() != 2) {
        Cmd_Imprimer.setVisible(false);
    }
}

void Ctr_Calvarine::Cmd_Sortir_Click()
{
    W_Sortir = true;
    m_screen.host().unloadForm();
}

void Ctr_Calvarine::terminate()
{
    if (m_terminated) {
        return;
    }
    m_terminated = true;
    UserControl_Terminate();
}

void Ctr_Calvarine::UserControl_Terminate()
{
    Droits.reset();
    DroitEcran.reset();
    Tab_Entite.reset();
    Tab_EntiteRecherche.reset();
    Tab_Cles.reset();
    Tab_Selection.reset();
    Procedure::FermerFichiers();
}

void Ctr_Calvarine::putUpWaitState()
{
    m_screen.setMousePointer(11);
    m_screen.setUserControlEnabled(false);
}

void Ctr_Calvarine::takeDownWaitState()
{
    m_screen.setMousePointer(0);
    m_screen.setUserControlEnabled(true);
}

void Ctr_Calvarine::applyPrintRule()
{
    Cmd_Imprimer.setEnabled((Opt_Prest.value() || Opt_Mandat.value() || Opt_Inter.value()) && Lst_OrgaSel.listCount() > 0);
}

std::string Ctr_Calvarine::period(const char* pattern) const
{
    return m_screen.host().formatDate(Cbo_Periode.text(), pattern);
}

std::string Ctr_Calvarine::activityLetter() const
{
    if (Opt_Prest.value()) {
        return "P";
    }
    if (Opt_Mandat.value()) {
        return "M";
    }
    return "I";
}

#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "database/Dba.h"
#include "shell/Components.h"
#include "shell/ScreenModel.h"

class HostServices;

// The screen that re-issues archived statements: a user control that a host
// places on one of its forms.
//
// The host creates it with its host services, gives TheDatabase, TheClient and
// DroitsUtilisateur in any order, calls Init once, and may read W_Sortir at any
// time. All work after Init is driven by the events of the screen's controls on
// the host's one interface thread. terminate() (or destruction) releases what
// the control holds; the screen model stays readable until destruction.
//
// The members are defined in the folder of the subsystem that owns them:
// shell/ (life cycle, presentations, rights, help), scope/ (entity, period,
// activity), lists/ (statement query, paired lists), filter/, reissue/.
class Ctr_Calvarine {
public:
    explicit Ctr_Calvarine(HostServices& host);
    Ctr_Calvarine(const Ctr_Calvarine&) = delete;
    Ctr_Calvarine& operator=(const Ctr_Calvarine&) = delete;
    ~Ctr_Calvarine();

    // The public interface, in its order.
    bool W_Sortir = false;
    void DroitsUtilisateur(std::shared_ptr<SorbelaneDroits>& New_DroitsUtilisateur);
    ScreenModel& Controls() noexcept { return m_screen; }
    void TheClient(std::shared_ptr<DbaClient> vNewValue);
    void TheDatabase(std::shared_ptr<DbaDatabase> vNewValue);
    void Init();
    void Masquer_Depart();
    void Afficher();
    void Remplir_Combo_Entite();
    void Vider_Champs();
    void Remplir_Combo_Periode();
    void Afficher_Activite();
    void Requete_Liste();
    void Passage_A_Gauche();
    void Passage_A_Droite();
    void PickExe();
    void Remplir_Liste_Filtre();

    // The control terminates: UserControl_Terminate runs once.
    void terminate();
    bool terminated() const noexcept { return m_terminated; }

    // The members that last between calls, for hosts that inspect them.
    const std::shared_ptr<DbaDynArray>& tabEntite() const noexcept { return Tab_Entite; }
    const std::shared_ptr<DbaDynArray>& tabEntiteRecherche() const noexcept { return Tab_EntiteRecherche; }
    const std::shared_ptr<DbaDynArray>& tabCles() const noexcept { return Tab_Cles; }
    const std::shared_ptr<DbaDynArray>& tabSelection() const noexcept { return Tab_Selection; }

private:
    // Handlers and procedures, in the class's order.
    void Cbo_Periode_Click();
    void Cdr_Activite_MouseDown(std::int16_t& Button, std::int16_t& Shift, float& x, float& y);
    void Cmd_Sortir_Click();
    void Mnu_Sommaire_Click();
    void UserControl_MouseDown(std::int16_t& Button, std::int16_t& Shift, float& x, float& y);
    void UserControl_Terminate();
    void Cbo_Entite_Click();
    void Cbo_Entite_KeyPress(std::int16_t& KeyAscii);
    void Txt_Entite_KeyPress(std::int16_t& KeyAscii);
    void Txt_Entite_LostFocus();
    void Cbo_Entite_Change();
    void Txt_Entite_Change();
    void Opt_Inter_Click();
    void Opt_Mandat_Click();
    void Opt_Prest_Click();
    void Cmd_Tous_Click();
    void Lst_OrgaSel_DblClick();
    void Lst_OrgaSel_DragDrop();
    void Lst_OrgaSel_MouseDown(std::int16_t& Button, std::int16_t& Shift, float& x, float& y);
    void Lst_OrgaSel_Click();
    void Lst_CodeOrgaSel_Click();
    void Cmd_PasseGauche_Click();
    void Lst_OrgaPos_DblClick();
    void Lst_OrgaPos_DragDrop();
    void Lst_OrgaPos_MouseDown(std::int16_t& Button, std::int16_t& Shift, float& x, float& y);
    void Lst_OrgaPos_Click();
    void Lst_CodeOrgaPos_Click();
    void Cmd_PasseDroit_Click();
    void Cmd_Imprimer_Click();
    void Appliquer_Droits();
    void Txt_tri_Change();
    void Txt_tri_KeyPress(std::int16_t& KeyAscii);
    void Txt_tri_LostFocus();
    void Cbo_Tri_Change();
    void Cbo_Tri_Click();
    void Opt_Org_Click();
    void Opt_Tous_Click();
    void Opt_NumFact_Click();

    // Helpers shared by several procedures.
    void bindHandlers();
    void putUpWaitState();
    void takeDownWaitState();
    // Cmd_Imprimer.Enabled: an activity chosen and a non-empty selected pair.
    void applyPrintRule();
    // The period of Cbo_Periode as six digits, with the date pattern given.
    std::string period(const char* pattern) const;
    // "P", "M" or "I" from the activity options; "I" when neither P nor M is set.
    std::string activityLetter() const;
    // Selects keys of ARCHIVEBORDCAISSE with sentence into Tab_Cles; a failure
    // leaves Tab_Cles as it was.
    void selectArchive(const std::string& sentence);
    // Fills the possible pair with one statement line and one code line per key
    // of Tab_Cles, skipping a line equal to the one last added. Skip-and-continue.
    void fillPossiblePair();
    // Fills Cbo_Tri from Tab_Cles: one organisation per run of its code (the
    // code as ItemData), or every invoice number. Skip-and-continue.
    void fillChoiceList(bool byOrganisation);
    // The padded code of an organisation: n in decimal, "0" in front up to
    // Txt_Tri.MaxLength characters.
    std::string paddedCode(const std::string& digits) const;

    ScreenModel m_screen;
    bool m_terminated = false;

    // The members that last between calls, all empty at creation.
    std::shared_ptr<SorbelaneDroits> Droits;
    std::shared_ptr<SorbelaneDroit> DroitEcran;
    std::shared_ptr<DbaDynArray> Tab_Entite;
    std::shared_ptr<DbaDynArray> Tab_EntiteRecherche;
    std::shared_ptr<DbaDynArray> Tab_Cles;
    std::shared_ptr<DbaDynArray> Tab_Selection;

    // The controls of the screen.
    Control& Cbo_Entite;
    Control& Cdr_Activite;
    Control& Opt_Inter;
    Control& Opt_Mandat;
    Control& Opt_Prest;
    Control& Txt_Entite;
    Control& Cbo_Periode;
    Control& Lst_OrgaPos;
    Control& Cmd_PasseGauche;
    Control& Cmd_PasseDroit;
    Control& Cmd_Tous;
    Control& Lst_OrgaSel;
    Control& Cmd_Sortir;
    Control& Cmd_Imprimer;
    Control& Lst_CodeOrgaPos;
    Control& Lst_CodeOrgaSel;
    Control& Ctr_Belmontis1;
    Control& Opt_Papier;
    Control& Opt_Fichier;
    Control& Cdr_Select;
    Control& Opt_Org;
    Control& Opt_NumFact;
    Control& Cbo_Tri;
    Control& Txt_Tri;
    Control& Opt_Tous;
    Control& Mnu_Aide;
    Control& Mnu_Sommaire;
    Control& UserControl;
};

#include "archive/Archive.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/ErrorTrap.h"
#include "shell/HostServices.h"
#include "shell/Text.h"
#include "shell/Variable.h"
#include "shell/ObjectRef.h"

namespace {

// The number of keys of the latest query, as a 16-bit count: 0 when it found
// nothing, and 0 too when there are more than 32,767 (the conversion fails).
std::int16_t keyCount(const std::shared_ptr<DbaDynArray>& keys, ErrorTrap& trap)
{
    std::int16_t count = 0;
    trap.step([&] {
        if (keys && !keys->attribute(1).empty()) {
            count = keys->DCount();
        }
    });
    return count;
}

} // namespace

void Ctr_Calvarine::Requete_Liste()
{
    ErrorTrap trap;
    Cbo_Periode.setEnabled(true);
    Txt_Entite.setEnabled(true);
    Cbo_Entite.setEnabled(true);
    putUpWaitState();

    if (Opt_Tous.value()) {
        Lst_OrgaSel.clear();
        Lst_OrgaPos.clear();
        Lst_CodeOrgaSel.clear();
        Lst_CodeOrgaPos.clear();
        std::string sentence;
        trap.step([&] {
            sentence = archive::scopeSentence(period("yyyymm"), Txt_Entite.text(), activityLetter(),
                archive::Order::ByOrganisationThenInvoice);
        });
        selectArchive(sentence);
        fillPossiblePair();
    } else if (Opt_Org.value() || Opt_NumFact.value()) {
        const bool byOrganisation = Opt_Org.value();
        Lst_OrgaPos.clear();
        Lst_CodeOrgaPos.clear();
        Cbo_Tri.clear();
        Txt_Tri.setText("");
        std::string sentence;
        trap.step([&] {
            sentence = archive::scopeSentence(period("yyyymm"), Txt_Entite.text(), activityLetter(),
                byOrganisation ? archive::Order::ByOrganisationThenInvoice : archive::Order::ByInvoice);
        });
        selectArchive(sentence);
        fillChoiceList(byOrganisation);
    }

    trap.step([&] { m_screen.host().doEvents(); });
    takeDownWaitState();
}

void Ctr_Calvarine::selectArchive(const std::string& sentence)
{
    ErrorTrap trap;
    trap.step([&] {
        std::int32_t status = 0;
        Tab_Cles = std::make_shared<DbaDynArray>(
            Obj(Variable::TheDatabase, "TheDatabase").Select(archive::keyRequest(sentence).text(), "", status));
    });
}

void Ctr_Calvarine::fillChoiceList(bool byOrganisation)
{
    ErrorTrap trap;
    const std::int16_t count = keyCount(Tab_Cles, trap);
    std::string previousCode;
    for (int i = 1; i <= count; ++i) {
        const std::string key = Tab_Cles->attribute(i);
        if (!byOrganisation) {
            trap.step([&] { Cbo_Tri.addItem(archive::invoiceOf(key)); });
            continue;
        }
        const std::string code = archive::organisationOf(key);
        if (code == previousCode) {
            continue;
        }
        trap.clear();
        trap.step([&] { Variable::I_OrgPriseCharge = Obj(Variable::F_OrgPriseCharge, "F_OrgPriseCharge").ReadItem(code); });
        std::string entry;
        trap.step([&] { entry = trap.isNoRecord() ? archive::kNoOrganisation : Obj(Variable::I_OrgPriseCharge, "I_OrgPriseCharge").attribute(1); });
        trap.step([&] { Cbo_Tri.addItem(entry); });
        trap.step([&] { Cbo_Tri.setItemData(Cbo_Tri.newIndex(), Text::CLng(code)); });
        previousCode = code;
    }
}

void Ctr_Calvarine::fillPossiblePair()
{
    ErrorTrap trap;
    const std::int16_t count = keyCount(Tab_Cles, trap);
    std::string previousLine;
    for (int i = 1; i <= count; ++i) {
        const std::string key = Tab_Cles->attribute(i);
        trap.clear();
        trap.step([&] { Variable::I_OrgPriseCharge = Obj(Variable::F_OrgPriseCharge, "F_OrgPriseCharge").ReadItem(archive::organisationOf(key)); });
        std::string line;
        trap.step([&] {
            const std::string name
                = trap.isNoRecord() ? archive::kNoOrganisation : Obj(Variable::I_OrgPriseCharge, "I_OrgPriseCharge").attribute(1);
            line = archive::statementLine(name, archive::invoiceOf(key));
        });
        trap.step([&] {
            if (line != previousLine) {
                previousLine = line;
                Lst_OrgaPos.addItem(line);
                Lst_CodeOrgaPos.addItem(archive::codeLine(key));
            }
        });
    }
}

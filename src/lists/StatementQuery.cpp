#include "database/FileNames.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/ErrorTrap.h"
#include "shell/HostServices.h"
#include "shell/Text.h"
#include "shell/Variable.h"
#include "shell/ObjectRef.h"

namespace {

constexpr const char* kNoOrganisation = "TAUX PRESTATION";

// Positions of the archive key: organisation 5 to 7, invoice number 14 to 23.
std::string organisationOf(const std::string& key)
{
    return Text::Mid(key, 5, 3);
}

std::string invoiceOf(const std::string& key)
{
    return Text::Mid(key, 14, 10);
}

// The line of the possible list: the name in 55 columns (cut at 40 characters),
// then the invoice number.
std::string statementLine(const std::string& name, const std::string& invoice)
{
    const auto length = Text::Len(name);
    if (length > 40) {
        return Text::Left(name, 40) + Text::Space(15) + invoice;
    }
    return name + Text::Space(55 - length) + invoice;
}

std::string codeLine(const std::string& key)
{
    return organisationOf(key) + " " + invoiceOf(key);
}

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

std::string archiveSentence(const std::string& period, const std::string& keyBeginning, const char* order)
{
    return std::string("SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = \"") + period + "\" AND AVEC 0 = \"" + keyBeginning
        + "\"" + order;
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
            sentence = archiveSentence(period("yyyymm"), Txt_Entite.text() + activityLetter() + "]",
                " PAR SigleOrgaArchive PAR NumFactArchive");
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
            sentence = archiveSentence(period("yyyymm"), Txt_Entite.text() + activityLetter() + "]",
                byOrganisation ? " PAR SigleOrgaArchive PAR NumFactArchive" : " PAR NumFactArchive");
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
        DbaDynArray request;
        request.setAttribute(1, sentence);
        request.setAttribute(2, FileNames::ARCHIVEBORDCAISSE);
        request.setAttribute(3, "0");
        std::int32_t status = 0;
        Tab_Cles = std::make_shared<DbaDynArray>(Obj(Variable::TheDatabase, "TheDatabase").Select(request.text(), "", status));
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
            trap.step([&] { Cbo_Tri.addItem(invoiceOf(key)); });
            continue;
        }
        const std::string code = organisationOf(key);
        if (code == previousCode) {
            continue;
        }
        trap.clear();
        trap.step([&] { Variable::I_OrgPriseCharge = Obj(Variable::F_OrgPriseCharge, "F_OrgPriseCharge").ReadItem(code); });
        std::string entry;
        trap.step([&] { entry = trap.isNoRecord() ? kNoOrganisation : Obj(Variable::I_OrgPriseCharge, "I_OrgPriseCharge").attribute(1); });
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
        trap.step([&] { Variable::I_OrgPriseCharge = Obj(Variable::F_OrgPriseCharge, "F_OrgPriseCharge").ReadItem(organisationOf(key)); });
        std::string line;
        trap.step([&] {
            line = trap.isNoRecord() ? kNoOrganisation + Text::Space(40) + invoiceOf(key)
                                     : statementLine(Obj(Variable::I_OrgPriseCharge, "I_OrgPriseCharge").attribute(1), invoiceOf(key));
        });
        trap.step([&] {
            if (line != previousLine) {
                previousLine = line;
                Lst_OrgaPos.addItem(line);
                Lst_CodeOrgaPos.addItem(codeLine(key));
            }
        });
    }
}

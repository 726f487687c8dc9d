#include "database/FileNames.h"
#include "reissue/GraphicFilesMessage.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/ErrorTrap.h"
#include "shell/HostServices.h"
#include "shell/Variable.h"
#include "shell/ObjectRef.h"

void Ctr_Calvarine::PickExe()
{
    ErrorTrap trap;
    m_screen.setMousePointer(11);
    m_screen.setUserControlEnabled(false);

    DbaDynArray request;
    DbaDynArray answer;
    std::int32_t status = 0;
    trap.step([&] {
        request.setText("LOGIN");
        answer = Obj(Variable::TheDatabase, "TheDatabase").Execute(request.text(), "", status);
    });
    const std::string letter = activityLetter();
    trap.step([&] { Variable::I_Tempo = Obj(Variable::F_Tempo, "F_Tempo").NewItem(Keys::REQUETEBORDEXCEL); });
    trap.step([&] { Obj(Variable::I_Tempo, "I_Tempo").assign(Obj(Tab_Selection, "Tab_Selection")); });
    trap.step([&] { Obj(Variable::I_Tempo, "I_Tempo").DBWrite(); });
    std::string sentence;
    trap.step([&] { sentence = "ARCHIVEBORDCAISSEEXCEL " + period("YYYYMM") + " " + Txt_Entite.text() + " " + letter; });
    trap.step([&] {
        request.setText("");
        request.setAttribute(1, "P");
        request.setAttribute(2, sentence);
    });
    trap.step([&] { answer = Obj(Variable::TheDatabase, "TheDatabase").Execute(request.text(), "", status); });
    trap.step([&] { m_screen.host().doEvents(); });
    m_screen.setMousePointer(0);
    m_screen.setUserControlEnabled(true);

    // The error in force is not cleared first: any failure of the run that left
    // no result record ends in the same message.
    trap.step([&] { Variable::I_Tempo = Obj(Variable::F_Tempo, "F_Tempo").ReadItem(Keys::BORDCAISSEEXCEL); });
    if (trap.isNoRecord()) {
        m_screen.host().msgBox(std::string(reissue::kGraphicFailure), 48, std::string(reissue::kGraphicTitle));
        return;
    }
    std::int16_t n = 0;
    trap.step([&] { n = Obj(Variable::I_Tempo, "I_Tempo").DCount(); });
    std::string message;
    trap.step([&] {
        if (n == 1) {
            message = std::string(reissue::kOneFileLine) + "\r\n - " + Obj(Variable::I_Tempo, "I_Tempo").attribute(1);
        } else {
            message = std::string(reissue::kFilesLine) + "\r\n";
            for (int i = 1; i <= n; ++i) {
                message += " - " + Obj(Variable::I_Tempo, "I_Tempo").attribute(i) + "\r\n";
            }
        }
    });
    trap.step([&] { m_screen.host().msgBox(message, 64, std::string(reissue::kGraphicTitle)); });
    trap.step([&] { Obj(Variable::F_Tempo, "F_Tempo").DeleteItem(Keys::BORDCAISSEEXCEL); });
    trap.step([&] { Obj(Variable::F_Tempo, "F_Tempo").DeleteItem(Keys::REQUETEBORDEXCEL); });
}

#pragma once

#include <string>

#include "QtHostServices.h"

class LongMessageBox;
class QMessageBox;

namespace script {

// The host's message boxes shown for real over the window: each is read back
// (title, text, icon, buttons) as its event line, then answered with OK.
class DialogReader final : public QtHostServices {
public:
    DialogReader() : QtHostServices({}) {}
    std::string show(const std::string& text, int style, const std::string& title);

protected:
    void execMessageBox(QMessageBox& box) override;
    void execLongMessageBox(LongMessageBox& box) override;

private:
    void giveBackActivation();

    std::string m_text;
    std::string m_line;
};

} // namespace script

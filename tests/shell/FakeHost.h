#pragma once

#include <string>
#include <vector>

#include "shell/HostServices.h"

// Host services that record what the control asked of them.
class FakeHost : public HostServices {
public:
    std::vector<std::string> events;

    void msgBox(const std::string& text, int style, const std::string& title) override
    {
        events.push_back("MSGBOX " + std::to_string(style) + " " + title + ": " + text);
    }
    void beep() override { events.push_back("BEEP"); }
    void doEvents() override {}
    void popupMenu(Control&) override { events.push_back("POPUP"); }
    void unloadForm() override { events.push_back("UNLOAD"); }
    std::string formatDate(const std::string& text, const std::string&) override { return text; }
    std::shared_ptr<AideEnLigne> createHelp() override { return nullptr; }
    void reportFailure(const std::string& where, const std::string&) override { events.push_back("ERROR " + where); }
};

#include "ScriptHost.h"

#include "FrenchDates.h"
#include "Text.h"
#include "shell/Control.h"

namespace script {

ScriptHost::ScriptHost(std::shared_ptr<EventLog> events)
    : m_events(std::move(events))
{
}

void ScriptHost::msgBox(const std::string& text, int style, const std::string& title)
{
    m_events->push(m_showMessage ? m_showMessage(text, style, title) : "MSGBOX " + std::to_string(style) + " \"" + title + "\" \"" + text + "\"");
    if (const std::string note = m_noteFor ? m_noteFor(text, style, title) : std::string(); !note.empty()) {
        m_events->push("NOTE \"" + note + "\"");
    }
}

void ScriptHost::beep()
{
    m_events->push("BEEP");
}

void ScriptHost::popupMenu(Control& menu)
{
    m_events->push("POPUP " + menu.name());
    m_popup = &menu;
    if (m_showPopup) {
        m_showPopup(menu);
    }
}

void ScriptHost::unloadForm()
{
    m_events->push("UNLOAD");
    m_unloadRequested = true;
}

bool ScriptHost::takeUnloadRequest() noexcept
{
    const bool requested = m_unloadRequested;
    m_unloadRequested = false;
    return requested;
}

std::string ScriptHost::formatDate(const std::string& text, const std::string& pattern)
{
    return FrenchDates::format(text, pattern);
}

std::shared_ptr<AideEnLigne> ScriptHost::createHelp()
{
    return std::make_shared<HelpRecorder>(m_events);
}

void ScriptHost::reportFailure(const std::string& where, const std::string& what)
{
    m_events->push("ERROR " + where + ": " + what);
}

std::string HelpRecorder::AfficherPage(std::string& page, std::string& mode, std::string& title)
{
    m_events->push("HELP \"" + page + "\" \"" + mode + "\" \"" + title + "\" client=" + (m_client ? "set" : "empty")
        + " base=" + (m_base ? "set" : "empty"));
    return {};
}

std::string BelmontisRecorder::describe(const Variant& value)
{
    struct Describe {
        std::string operator()(std::monostate) const { return "nothing"; }
        std::string operator()(bool b) const { return b ? "True" : "False"; }
        std::string operator()(std::int32_t i) const { return std::to_string(i); }
        std::string operator()(const std::string& s) const { return "\"" + s + "\""; }
        std::string operator()(const std::shared_ptr<DbaDatabase>& d) const { return d ? "database" : "nothing"; }
        std::string operator()(const std::shared_ptr<DbaClient>& c) const { return c ? "client" : "nothing"; }
        std::string operator()(const std::shared_ptr<DbaDynArray>& a) const
        {
            return a ? "\"" + showMarks(a->text()) + "\"" : "nothing";
        }
    };
    return std::visit(Describe{}, value);
}

void BelmontisRecorder::setProperty(std::string_view name, Variant& value)
{
    m_events->push("BELMONTIS " + std::string(name) + " " + describe(value));
}

Variant BelmontisRecorder::invoke(std::string_view name, std::vector<std::reference_wrapper<Variant>> args)
{
    std::string line = "BELMONTIS " + std::string(name);
    for (const Variant& arg : args) {
        line += " " + describe(arg);
    }
    m_events->push(std::move(line));
    return {};
}

} // namespace script

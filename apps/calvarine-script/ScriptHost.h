#pragma once

#include <functional>
#include <memory>
#include <string>

#include "EventLog.h"
#include "shell/Components.h"
#include "shell/HostServices.h"

namespace script {

// The host services of the scenario host: what would be shown to the operator
// becomes an event line. Message boxes are answered with OK at once, DoEvents
// runs nothing, and unloading the form is only noted: the host terminates the
// control once the handler that asked has returned.
class ScriptHost : public HostServices {
public:
    explicit ScriptHost(std::shared_ptr<EventLog> events);

    void msgBox(const std::string& text, int style, const std::string& title) override;
    void beep() override;
    void doEvents() override {}
    void popupMenu(Control& menu) override;
    void unloadForm() override;
    std::string formatDate(const std::string& text, const std::string& pattern) override;
    std::shared_ptr<AideEnLigne> createHelp() override;
    void reportFailure(const std::string& where, const std::string& what) override;

    // What the host adds after a message (text, style, title), queued as
    // NOTE "TEXT" when not empty.
    void setNoteFor(std::function<std::string(const std::string&, int, const std::string&)> noteFor) { m_noteFor = std::move(noteFor); }

    // A window that shows the pop-up menus for real, after the event is queued.
    void setPopupShower(std::function<void(Control&)> show) { m_showPopup = std::move(show); }
    // A window that shows each message box for real, answers it with OK and
    // gives the event line as read from the dialog.
    using MessageShower = std::function<std::string(const std::string& text, int style, const std::string& title)>;
    void setMessageShower(MessageShower show) { m_showMessage = std::move(show); }

    bool popupOpen() const noexcept { return m_popup != nullptr; }
    // The menu whose entries the open pop-up shows; null when none is open.
    const Control* openPopup() const noexcept { return m_popup; }
    void closePopup() noexcept { m_popup = nullptr; }
    // True once after the control asked for its form to be unloaded.
    bool takeUnloadRequest() noexcept;

private:
    std::shared_ptr<EventLog> m_events;
    std::function<void(Control&)> m_showPopup;
    std::function<std::string(const std::string&, int, const std::string&)> m_noteFor;
    MessageShower m_showMessage;
    const Control* m_popup = nullptr;
    bool m_unloadRequested = false;
};

// The help component: each page asked becomes a HELP event.
class HelpRecorder : public AideEnLigne {
public:
    explicit HelpRecorder(std::shared_ptr<EventLog> events) : m_events(std::move(events)) {}
    void Client(std::shared_ptr<DbaClient> client) override { m_client = std::move(client); }
    void Base(std::shared_ptr<DbaDatabase> base) override { m_base = std::move(base); }
    std::string AfficherPage(std::string& page, std::string& mode, std::string& title) override;

private:
    std::shared_ptr<EventLog> m_events;
    std::shared_ptr<DbaClient> m_client;
    std::shared_ptr<DbaDatabase> m_base;
};

// The sibling printing control: each member used becomes a BELMONTIS event.
class BelmontisRecorder : public LateBoundObject {
public:
    explicit BelmontisRecorder(std::shared_ptr<EventLog> events) : m_events(std::move(events)) {}
    void setProperty(std::string_view name, Variant& value) override;
    Variant invoke(std::string_view name, std::vector<std::reference_wrapper<Variant>> args) override;

    // A value as the event line writes it.
    static std::string describe(const Variant& value);

private:
    std::shared_ptr<EventLog> m_events;
};

} // namespace script

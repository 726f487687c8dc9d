#pragma once

#include <memory>
#include <string>

class Control;
class AideEnLigne;

// What the control needs of the host and its toolkit beyond the screen model:
// message boxes, beeps, yielding, pop-up menus, unloading the form, dates with
// the regional settings, the help component, and where failures end up.
// The desktop host implements it with Qt; the scenario host records events.
class HostServices {
public:
    virtual ~HostServices() = default;

    // Shows a message box (style 48 exclamation, 64 information, OK button) and
    // returns when the operator has closed it.
    virtual void msgBox(const std::string& text, int style, const std::string& title) = 0;
    virtual void beep() = 0;
    // Lets the pending events of the interface thread run.
    virtual void doEvents() = 0;
    // Shows the pop-up menu headed by menu; a choice raises the entry's Click.
    virtual void popupMenu(Control& menu) = 0;
    // Unloads the form that carries the control; the host then terminates it.
    virtual void unloadForm() = 0;

    // Reads text as a date with the regional settings (day first; or a month
    // name and a year, as "NOVEMBRE 2026") and writes it with pattern: "mmmm yyyy"
    // (the month's full name and the year), "yyyymm" or "YYYYMM" (six digits).
    // Throws std::invalid_argument when text is not a date.
    virtual std::string formatDate(const std::string& text, const std::string& pattern) = 0;

    // The help component, made at its first use.
    virtual std::shared_ptr<AideEnLigne> createHelp() = 0;

    // A failure that no handler of the control dealt with ended at where (the
    // handler or public method); the host reports it.
    virtual void reportFailure(const std::string& where, const std::string& what) = 0;
};

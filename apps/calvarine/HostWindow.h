#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <QMainWindow>

#include "QtHostServices.h"

class Ctr_Calvarine;
class ScreenView;

namespace store {
class Store;
}

// The form that carries the control and plays its host: it hands over the
// database, the client and the rights, puts the sibling printing control on
// the form, calls Init, closes when the control unloads it, and terminates the
// control when it closes, whichever way.
class HostWindow : public QMainWindow {
public:
    struct Options {
        std::string user;                             // for the client and the rights
        std::optional<std::filesystem::path> printTo; // paper runs as PDF files there
    };
    using HostFactory = std::function<std::unique_ptr<QtHostServices>(QtHostServices::Setup)>;

    // makeHost: the host services to use (tests answer dialogs through them).
    HostWindow(std::shared_ptr<store::Store> store, Options options, const HostFactory& makeHost = {});
    ~HostWindow() override;

    // Gives the control what it needs and calls Init. A failure is reported to
    // the operator through the host services; false then.
    bool start();

    Ctr_Calvarine& control() const { return *m_control; }
    ScreenView& view() const { return *m_view; }
    QtHostServices& host() const { return *m_host; }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    std::shared_ptr<store::Store> m_store;
    Options m_options;
    std::unique_ptr<QtHostServices> m_host;
    std::unique_ptr<Ctr_Calvarine> m_control;
    ScreenView* m_view = nullptr; // child widget, deleted before the control
};

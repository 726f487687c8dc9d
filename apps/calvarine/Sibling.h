#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "shell/Components.h"

class HostServices;

// The sibling printing control, created by its class name from the
// application's own library folders (a per-user registration is followed only
// when the loader trusts it; a refusal goes to warn, once).
// Throws components::ComponentError when it cannot be had.
std::shared_ptr<LateBoundObject> createBelmontis(HostServices& host, const std::vector<std::filesystem::path>& libraryFolders,
    const std::function<void(const std::string&)>& warn = {});

// Where the application's own libraries lie: beside the executable's folder.
std::vector<std::filesystem::path> applicationLibraryFolders();

// Makes the folder that paper runs are written to (--print-to) and checks
// that files can be made in it. The reason, in the system's words, when not;
// empty when ready.
std::string preparePrintFolder(const std::filesystem::path& folder);

// The sibling as the desktop host carries it: before each paper run it hands
// over the operator's printing choices (printer, copies, duplex, preview, the
// pages beyond which a run is confirmed);
// after it, it tells the host what the run did (the sibling's Compte_Rendu),
// or that nothing was printed and why; as it begins, it tells an empty text. Everything else passes through.
class HostedSibling final : public LateBoundObject {
public:
    struct Choices {
        std::string printer;
        int copies = 1;
        bool duplex = false;
        bool preview = false;
        int confirmAbove = 0; // pages; 0: no confirmation
    };
    HostedSibling(std::shared_ptr<LateBoundObject> sibling, std::function<Choices()> choices,
        std::function<void(const std::string&)> tell);

    void setProperty(std::string_view name, Variant& value) override;
    Variant invoke(std::string_view name, std::vector<std::reference_wrapper<Variant>> args) override;

    // Why the last paper run printed nothing (what the sibling threw); empty
    // after a run that went through.
    const std::string& lastFailure() const { return m_lastFailure; }

private:
    std::shared_ptr<LateBoundObject> m_sibling;
    std::function<Choices()> m_choices;
    std::function<void(const std::string&)> m_tell;
    std::string m_lastFailure;
};

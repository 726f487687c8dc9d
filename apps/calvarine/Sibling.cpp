#include "Sibling.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <QCoreApplication>

#include "ComponentLoader.h"

std::vector<std::filesystem::path> applicationLibraryFolders()
{
    const std::filesystem::path bin = QCoreApplication::applicationDirPath().toStdString();
    return {bin / ".." / CALVARINE_INSTALL_LIBDIR, bin / ".." / "lib"};
}

std::shared_ptr<LateBoundObject> createBelmontis(HostServices& host, const std::vector<std::filesystem::path>& libraryFolders,
    const std::function<void(const std::string&)>& warn)
{
    components::ComponentLoader loader(libraryFolders, components::registrationDirectory(), warn);
    return loader.createLateBound("Belmontis.Ctr_Belmontis", "libbelmontis.so", &host);
}

std::string preparePrintFolder(const std::filesystem::path& folder)
{
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        return error.message();
    }
    if (!std::filesystem::is_directory(folder, error)) {
        return "not a folder";
    }
    if (::access(folder.c_str(), W_OK | X_OK) != 0) {
        return std::strerror(errno);
    }
    return {};
}

HostedSibling::HostedSibling(std::shared_ptr<LateBoundObject> sibling, std::function<Choices()> choices,
    std::function<void(const std::string&)> tell)
    : m_sibling(std::move(sibling))
    , m_choices(std::move(choices))
    , m_tell(std::move(tell))
{
}

void HostedSibling::setProperty(std::string_view name, Variant& value)
{
    m_sibling->setProperty(name, value);
}

Variant HostedSibling::invoke(std::string_view name, std::vector<std::reference_wrapper<Variant>> args)
{
    if (name != "Editer_Bordereaux") {
        return m_sibling->invoke(name, std::move(args));
    }
    const Choices choices = m_choices ? m_choices() : Choices{};
    Variant printer = choices.printer;
    Variant copies = static_cast<std::int32_t>(choices.copies);
    Variant duplex = choices.duplex;
    Variant preview = choices.preview;
    Variant confirmAbove = static_cast<std::int32_t>(choices.confirmAbove);
    m_sibling->setProperty("Imprimante", printer);
    m_sibling->setProperty("Copies", copies);
    m_sibling->setProperty("RectoVerso", duplex);
    m_sibling->setProperty("Apercu", preview);
    m_sibling->setProperty("SeuilConfirmation", confirmAbove);
    m_lastFailure.clear();
    if (m_tell) {
        m_tell({}); // a run begins: the last one's outcome goes
    }
    try {
        Variant result = m_sibling->invoke(name, std::move(args));
        const Variant done = m_sibling->invoke("Compte_Rendu", {});
        if (const auto* text = std::get_if<std::string>(&done); text && m_tell) {
            m_tell(*text);
        }
        return result;
    } catch (const std::exception& e) {
        m_lastFailure = e.what();
        if (m_tell) {
            m_tell(std::string("Rien n'a été imprimé : ") + e.what());
        }
        throw;
    }
}

#include "ReissueOutcome.h"

#include <system_error>

namespace outcome {

namespace {

// A name the server gave that stands for a file of FUSION itself.
bool isInFusion(const std::filesystem::path& fusion, const std::string& name)
{
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
        return false;
    }
    std::error_code error;
    return std::filesystem::is_regular_file(fusion / name, error);
}

} // namespace

std::string operatorWords(const DbaError& failure)
{
    if (!failure.reason().empty()) {
        return failure.reason();
    }
    return "la base a signalé une erreur (" + std::string(failure.what()) + ")";
}

std::string reissueNote(const reissue::GraphicOutcome& told, const Exchange& exchange, const std::filesystem::path& fusion)
{
    const std::string cause = exchange.failure ? operatorWords(*exchange.failure) : std::string();
    if (told.failed) {
        return cause.empty() ? std::string() : "Cause : " + cause + ".";
    }
    if (!exchange.commandRan) {
        return "Attention : aucun fichier n'a été créé" + (cause.empty() ? std::string() : " : " + cause) + ".";
    }
    if (exchange.failedAfterCommand) {
        return "Attention : cette liste n'est pas celle des fichiers créés, qui n'a pas pu être lue"
            + (cause.empty() ? std::string() : " : " + cause) + ". Voyez le dossier FUSION.";
    }
    if (fusion.empty()) {
        return {};
    }
    std::vector<std::string> missing;
    for (const std::string& name : told.files) {
        if (!isInFusion(fusion, name)) {
            missing.push_back(name);
        }
    }
    if (missing.empty()) {
        return {};
    }
    if (missing.size() == told.files.size()) {
        return "Attention : aucun de ces fichiers n'est dans le dossier FUSION (" + fusion.string() + ").";
    }
    constexpr std::size_t kNamed = 5;
    std::string names;
    for (std::size_t i = 0; i < missing.size() && i < kNamed; ++i) {
        names += (i == 0 ? "" : ", ") + missing[i];
    }
    if (missing.size() > kNamed) {
        names += "…";
    }
    return "Attention : " + std::to_string(missing.size()) + (missing.size() == 1 ? " de ces fichiers n'est pas" : " de ces fichiers ne sont pas")
        + " dans le dossier FUSION (" + fusion.string() + ") : " + names + ".";
}

} // namespace outcome

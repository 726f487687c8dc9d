#pragma once

// The two messages that end a graphic file run, as the control words them, and
// their reading back by a host that wants to check what it was told (which
// files, or that none was made) without matching the texts itself.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace reissue {

inline constexpr std::string_view kGraphicTitle = "Message TRIVALDEN";
inline constexpr std::string_view kOneFileLine = "Le fichier suivant a été généré dans le répertoire FUSION :";
inline constexpr std::string_view kFilesLine = "Les fichiers suivants ont été générés dans le répertoire FUSION :";
inline constexpr std::string_view kGraphicFailure
    = "Le fichier graphique n'a pas pu être généré. Si le problème persiste, contacter TRIVALDEN.";

// What a message box of the control says of a graphic file run.
struct GraphicOutcome {
    bool failed = false;            // the failure message: no file
    std::vector<std::string> files; // the names listed, in order (none when failed)
};

// The outcome a message box tells, or nullopt when it is another message.
std::optional<GraphicOutcome> readGraphicMessage(std::string_view text, int style, std::string_view title);

} // namespace reissue

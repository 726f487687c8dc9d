#include "reissue/GraphicFilesMessage.h"

namespace reissue {

std::optional<GraphicOutcome> readGraphicMessage(std::string_view text, int style, std::string_view title)
{
    if (title != kGraphicTitle) {
        return std::nullopt;
    }
    if (style == 48 && text == kGraphicFailure) {
        return GraphicOutcome{true, {}};
    }
    if (style != 64) {
        return std::nullopt;
    }
    const bool one = text.starts_with(kOneFileLine);
    if (!one && !text.starts_with(kFilesLine)) {
        return std::nullopt;
    }
    GraphicOutcome outcome;
    text.remove_prefix((one ? kOneFileLine : kFilesLine).size());
    // Each name stands on a line of its own after " - "; lines end in CR LF.
    constexpr std::string_view kBullet = "\r\n - ";
    for (auto at = text.find(kBullet); at != std::string_view::npos;) {
        const auto start = at + kBullet.size();
        const auto end = text.find("\r\n", start);
        outcome.files.emplace_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        at = end == std::string_view::npos ? end : text.find(kBullet, end);
    }
    return outcome;
}

} // namespace reissue

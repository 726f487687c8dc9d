#pragma once

// What the operator must be told of a graphic file run beyond the control's
// message, when that message does not hold: a list of files that were not made
// (the server was lost after the request was written, and the control read its
// own request back as the result), files listed that are not in FUSION, or the
// cause of a failure that the control words the same whatever it was.
// The control's text is never changed: this is said after it, in French.

#include <filesystem>
#include <string>

#include "WatchedDatabase.h"
#include "reissue/GraphicFilesMessage.h"

namespace outcome {

// The note to show after the control's message told, given the exchange the
// run made; "" when the message holds as it stands. fusion is the folder
// FUSION as this workstation sees it; empty when it cannot (a server's folder),
// and then the names are not checked.
std::string reissueNote(const reissue::GraphicOutcome& told, const Exchange& exchange, const std::filesystem::path& fusion);

// A failure in an operator's words: its reason when it has one, else the
// database's own message.
std::string operatorWords(const DbaError& failure);

} // namespace outcome

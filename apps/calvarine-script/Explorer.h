#pragma once

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <optional>

namespace script {

// calvarine-script --explore DIR: random operator stories drawn from a seed,
// each played on the headless host and through the real window, with every
// reading compared after every line. DIR is a scenario folder: the stories load
// its fixtures (DIR/data/*.jsonl) and a divergence is written there as the
// smallest scenario that still shows it.
struct ExploreOptions {
    std::filesystem::path folder;
    std::uint64_t seed = 1;
    int stories = 10;
    int steps = 60;
    // Where the scenario of a divergence is written; none: printed only.
    std::optional<std::filesystem::path> keep;
};

// Plays the stories; prints the seed, the line and the readings of each
// divergence with its shortened scenario, then a summary. Exit status 0 when
// every story agreed, 1 otherwise.
int explore(const ExploreOptions& options, std::ostream& out);

} // namespace script

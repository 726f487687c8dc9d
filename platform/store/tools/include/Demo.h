#pragma once

// A realistic demo database: entities with their activity types, paying
// organisations, the current period, rights for the current user, and ten years
// of monthly archived statements. The same options give the same data.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "Store.h"

namespace store {

struct DemoOptions {
    // DemoOptions{statements, seed, bigScope}: the other fields keep their defaults.
    DemoOptions(std::size_t statementCount = 20000, std::uint64_t randomSeed = 1, std::size_t bigScopeCount = 0)
        : statements(statementCount)
        , seed(randomSeed)
        , bigScope(bigScopeCount)
    {
    }

    // Archived statements spread over the ten years before currentPeriod.
    std::size_t statements;
    std::uint64_t seed;
    // Statements of one scope (bigScopeEntity, letter "P", currentPeriod) added to
    // the others, for measures on a long list; 0 adds none.
    std::size_t bigScope;
    // The fixed current period, so that runs are reproducible.
    int currentPeriod = 202610;
    // Who gets the right on the screen; empty: $USER (or "demo").
    std::string user;
};

// The entity that holds the big scope.
inline constexpr const char* kBigScopeEntity = "001";

// Creates the system's files, and the dictionary of ARCHIVEBORDCAISSE, where
// they are missing. Call it inside a transaction to make it one commit.
void createSchema(Store& store);

// Called now and then with the statements written so far and the total.
using DemoProgress = std::function<void(std::size_t done, std::size_t total)>;

// Writes the demo data into the store, replacing records under the same keys.
// Throws DbaError on failure; each batch of statements is one transaction.
void generateDemo(Store& store, const DemoOptions& options, const DemoProgress& progress = {});

} // namespace store

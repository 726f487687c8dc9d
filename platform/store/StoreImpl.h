#pragma once

// What a Store holds beside its engine. Internal to the store.

#include <map>

#include "Engine.h"

namespace store {

class Store::Impl {
public:
    std::shared_ptr<Engine> engine;
    std::map<std::string, ServerCommand, std::less<>> commands;
    std::filesystem::path fusion;
    std::shared_ptr<DbaClient> client;
    CommandProgress progress;
    std::chrono::milliseconds commandTimeout{std::chrono::minutes(2)};
    bool serveOwnCommands = false;
};

} // namespace store

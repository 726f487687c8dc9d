#pragma once

// The multi-valued record store: files of records under text keys, a
// dictionary of names per file, query sentences, and server commands run by
// Execute. One database file (SQLite, WAL mode) holds everything; several
// processes may use it at once.
//
// A Store is a DbaDatabase; the files it opens are DbaFiles. Use from one thread
// at a time. Every failure is a DbaError (see database/DbaError.h).

#include <filesystem>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "database/Dba.h"

namespace store {

class Store;

// What a server command is given when Execute runs it.
struct CommandContext {
    Store& store;                        // the database the command works in
    std::filesystem::path fusion;        // the directory FUSION, which exists
    std::vector<std::string> arguments;  // the words of the sentence after the command's name
    std::shared_ptr<DbaClient> client;   // the session that asked, if known
};

// A server command. Throws (DbaError or any std::exception) on failure; Execute
// then fails with DbaError CommandFailed carrying the command's message.
using ServerCommand = std::function<void(CommandContext&)>;

enum class Justify { Left, Right };

class Store : public DbaDatabase {
public:
    // Opens the database file, creating it (and its folder) if needed.
    // FUSION defaults to the folder "FUSION" beside the file.
    static std::shared_ptr<Store> open(const std::filesystem::path& file);

    ~Store() override;

    // DbaDatabase.
    std::shared_ptr<DbaFile> OpenFile(std::string_view name) override;
    DbaDynArray Select(std::string_view request, std::string_view options, std::int32_t& status) override;
    DbaDynArray Execute(std::string_view request, std::string_view options, std::int32_t& status) override;

    // Runs a query sentence directly: the keys (attributes "0") or the attributes asked.
    DbaDynArray select(std::string_view sentence, std::string_view attributes = "0");

    // Files and dictionaries.
    bool fileExists(std::string_view file);
    void createFile(std::string_view file);                 // no-op when it exists
    std::vector<std::string> files();
    void defineName(std::string_view file, std::string_view name, int attribute, Justify justify = Justify::Left);

    // Records, outside any DbaFile (tools, tests, commands).
    std::optional<std::string> read(std::string_view file, std::string_view key);
    void write(std::string_view file, std::string_view key, std::string_view record); // creates the file if needed
    bool remove(std::string_view file, std::string_view key);

    // Several writes as one transaction: all or nothing.
    void transaction(const std::function<void()>& work);

    // Fixtures in JSON Lines (see the import/export format of the project's docs).
    // A malformed line throws DbaError BadData naming source and line; nothing of
    // that input is then imported.
    void importJsonLines(std::istream& in, std::string_view source);
    void importJsonLine(std::string_view line, std::string_view source = "line");
    // Writes the named files (all when empty), dictionaries first.
    void exportJsonLines(std::ostream& out, const std::vector<std::string>& files = {});

    // Server commands, run by Execute "P" in this process.
    void registerCommand(std::string name, ServerCommand command);
    void unregisterCommand(std::string_view name);
    const std::filesystem::path& fusionDirectory() const;
    void setFusionDirectory(std::filesystem::path directory);
    // The session that Execute passes to the commands it runs.
    void setClient(std::shared_ptr<DbaClient> client);

    const std::filesystem::path& path() const;

private:
    class Impl;
    explicit Store(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};

} // namespace store

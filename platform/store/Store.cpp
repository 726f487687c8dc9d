#include "Store.h"

#include <exception>

#include "StoreImpl.h"

namespace store {

namespace {

// A file of the store. It shares the engine, so it outlives the Store that opened it.
class StoreFile final : public DbaFile {
public:
    StoreFile(std::shared_ptr<Engine> engine, std::string name)
        : m_engine(std::move(engine))
        , m_name(std::move(name))
    {
    }

    const std::string& name() const noexcept override { return m_name; }

    std::shared_ptr<DbaItem> ReadItem(std::string_view key) override
    {
        auto record = m_engine->read(m_name, key);
        if (!record) {
            throw DbaError(DbaError::Kind::NoRecord, "ReadItem " + m_name + " \"" + std::string(key) + "\"",
                "no record under that key");
        }
        return std::make_shared<DbaItem>(shared_from_this(), std::string(key), std::move(*record));
    }

    std::string DeleteItem(std::string_view key) override
    {
        m_engine->remove(m_name, key);
        return {};
    }

    void writeRecord(std::string_view key, std::string_view record) override { m_engine->write(m_name, key, record); }

private:
    std::shared_ptr<Engine> m_engine;
    std::string m_name;
};

// The words of a command sentence; a double-quoted word may hold blanks.
std::vector<std::string> commandWords(std::string_view text)
{
    std::vector<std::string> words;
    std::size_t at = 0;
    while (at < text.size()) {
        if (text[at] == ' ' || text[at] == '\t') {
            ++at;
            continue;
        }
        std::string word;
        if (text[at] == '"') {
            const auto close = text.find('"', at + 1);
            const auto end = close == std::string_view::npos ? text.size() : close;
            word = std::string(text.substr(at + 1, end - at - 1));
            at = close == std::string_view::npos ? text.size() : close + 1;
        } else {
            const auto end = text.find_first_of(" \t", at);
            word = std::string(text.substr(at, end == std::string_view::npos ? std::string_view::npos : end - at));
            at = end == std::string_view::npos ? text.size() : end;
        }
        words.push_back(std::move(word));
    }
    return words;
}

} // namespace

Store::Store(std::unique_ptr<Impl> impl)
    : m_impl(std::move(impl))
{
}

Store::~Store() = default;

std::shared_ptr<Store> Store::open(const std::filesystem::path& file)
{
    auto impl = std::make_unique<Impl>();
    impl->engine = std::make_shared<Engine>(file);
    impl->fusion = file.parent_path() / "FUSION";
    return std::shared_ptr<Store>(new Store(std::move(impl)));
}

std::shared_ptr<DbaFile> Store::OpenFile(std::string_view name)
{
    if (!m_impl->engine->fileExists(name)) {
        throw DbaError(DbaError::Kind::NoFile, "OpenFile " + std::string(name), "no such file");
    }
    return std::make_shared<StoreFile>(m_impl->engine, std::string(name));
}

DbaDynArray Store::Select(std::string_view request, std::string_view, std::int32_t& status)
{
    status = 0;
    const DbaDynArray parts{std::string(request)};
    const auto sentenceText = parts.attribute(1);
    const auto file = parts.attribute(2);
    // The sentence names the file; a request that names another is a mistake.
    const auto parsedFile = sentence::parse(sentenceText).file;
    if (!file.empty() && file != parsedFile) {
        throw DbaError(DbaError::Kind::BadSentence, "Select",
            "the request names file " + file + " but the sentence selects " + parsedFile);
    }
    return m_impl->engine->select(sentenceText, parts.attribute(3));
}

DbaDynArray Store::Execute(std::string_view request, std::string_view, std::int32_t& status)
{
    status = 0;
    const DbaDynArray parts{std::string(request)};
    const auto operation = parts.attribute(1);
    if (operation == "LOGIN") {
        return {};
    }
    if (operation != "P") {
        throw DbaError(DbaError::Kind::CommandFailed, "Execute", "unknown operation \"" + operation + "\"");
    }
    const auto commandText = parts.attribute(2);
    auto words = commandWords(commandText);
    if (words.empty()) {
        throw DbaError(DbaError::Kind::CommandFailed, "Execute P", "no command given");
    }
    const auto found = m_impl->commands.find(words.front());
    if (found == m_impl->commands.end()) {
        throw DbaError(DbaError::Kind::CommandFailed, "Execute P " + words.front(), "no such server command");
    }
    // Copy: the command may unregister itself while it runs.
    const ServerCommand command = found->second;
    std::error_code error;
    std::filesystem::create_directories(m_impl->fusion, error);
    if (error) {
        throw DbaError(DbaError::Kind::CommandFailed, "Execute P " + words.front(),
            "cannot create " + m_impl->fusion.string() + ": " + error.message());
    }
    CommandContext context{*this, m_impl->fusion, std::vector<std::string>(words.begin() + 1, words.end()), m_impl->client};
    try {
        command(context);
    } catch (const std::exception& failure) {
        throw DbaError(DbaError::Kind::CommandFailed, "Execute P " + words.front(), failure.what());
    }
    return {};
}

DbaDynArray Store::select(std::string_view sentence, std::string_view attributes)
{
    return m_impl->engine->select(sentence, attributes);
}

bool Store::fileExists(std::string_view file)
{
    return m_impl->engine->fileExists(file);
}

void Store::createFile(std::string_view file)
{
    m_impl->engine->createFile(file);
}

std::vector<std::string> Store::files()
{
    return m_impl->engine->files();
}

void Store::defineName(std::string_view file, std::string_view name, int attribute, Justify justify)
{
    m_impl->engine->defineName(file, name, attribute, justify);
}

std::optional<std::string> Store::read(std::string_view file, std::string_view key)
{
    if (!m_impl->engine->fileExists(file)) {
        return std::nullopt;
    }
    return m_impl->engine->read(file, key);
}

void Store::write(std::string_view file, std::string_view key, std::string_view record)
{
    m_impl->engine->write(file, key, record);
}

bool Store::remove(std::string_view file, std::string_view key)
{
    return m_impl->engine->remove(file, key);
}

void Store::transaction(const std::function<void()>& work)
{
    m_impl->engine->transaction(work);
}

void Store::registerCommand(std::string name, ServerCommand command)
{
    m_impl->commands[std::move(name)] = std::move(command);
}

void Store::unregisterCommand(std::string_view name)
{
    if (const auto found = m_impl->commands.find(name); found != m_impl->commands.end()) {
        m_impl->commands.erase(found);
    }
}

const std::filesystem::path& Store::fusionDirectory() const
{
    return m_impl->fusion;
}

void Store::setFusionDirectory(std::filesystem::path directory)
{
    m_impl->fusion = std::move(directory);
}

void Store::setClient(std::shared_ptr<DbaClient> client)
{
    m_impl->client = std::move(client);
}

const std::filesystem::path& Store::path() const
{
    return m_impl->engine->path();
}

} // namespace store

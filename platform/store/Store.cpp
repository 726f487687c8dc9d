#include "Store.h"

#include <exception>

#include "PgEngine.h"
#include "SqliteEngine.h"
#include "StoreImpl.h"
#include "database/FileNames.h"

namespace store {

namespace {

// A file of the store. It shares the engine, so it outlives the Store that opened it.
class StoreFile final : public DbaFile {
public:
    StoreFile(std::shared_ptr<Engine> engine, std::shared_ptr<const SessionKeys> keys, std::string name)
        : m_engine(std::move(engine))
        , m_keys(std::move(keys))
        , m_name(std::move(name))
    {
    }

    const std::string& name() const noexcept override { return m_name; }

    std::shared_ptr<DbaItem> ReadItem(std::string_view key) override
    {
        auto record = m_engine->read(m_name, m_keys->stored(m_name, key));
        if (!record) {
            throw DbaError(DbaError::Kind::NoRecord, "ReadItem " + m_name + " \"" + std::string(key) + "\"",
                "no record under that key");
        }
        return std::make_shared<DbaItem>(shared_from_this(), std::string(key), std::move(*record));
    }

    std::string DeleteItem(std::string_view key) override
    {
        m_engine->remove(m_name, m_keys->stored(m_name, key));
        return {};
    }

    void writeRecord(std::string_view key, std::string_view record) override
    {
        names::checkWrittenKey(m_name, key);
        m_engine->write(m_name, m_keys->stored(m_name, key), record);
    }

private:
    std::shared_ptr<Engine> m_engine;
    std::shared_ptr<const SessionKeys> m_keys;
    std::string m_name;
};


} // namespace

Store::Store(std::unique_ptr<Impl> impl)
    : m_impl(std::move(impl))
{
    // TEMPO holds the working records a screen hands to the server command and
    // gets back: one workstation's request must never be read or deleted by
    // another's. Every opening of the application's database keeps them apart,
    // whatever the host registers (a window, a worker, a tool, a script).
    m_impl->engine->keepOutOfCache(FileNames::TEMPO);
    m_impl->sessionKeys->declare(FileNames::TEMPO);
    // A server then knows this session as live (see sweepDeadSessions).
    m_impl->engine->setSession(m_impl->sessionKeys->session());
}

Store::~Store() = default;

std::shared_ptr<Store> Store::open(const std::filesystem::path& file, OpenMode mode)
{
    auto impl = std::make_unique<Impl>();
    impl->engine = std::make_shared<SqliteEngine>(file, mode);
    impl->fusion = file.parent_path() / "FUSION";
    return std::shared_ptr<Store>(new Store(std::move(impl)));
}

bool Store::isServerConnection(std::string_view connection)
{
    return connection.starts_with("postgresql://") || connection.starts_with("postgres://");
}

std::shared_ptr<Store> Store::create(const std::filesystem::path& file)
{
    return open(file, OpenMode::Create);
}

std::shared_ptr<Store> Store::connect(std::string_view connection, OpenMode mode)
{
    if (!isServerConnection(connection)) {
        if (connection.starts_with("sqlite:")) {
            connection.remove_prefix(7);
        }
        if (connection.empty()) {
            throw DbaError(DbaError::Kind::NotConnected, "connect", "no database named");
        }
        return open(std::filesystem::path(connection), mode);
    }
    auto impl = std::make_unique<Impl>();
    impl->engine = std::make_shared<PgEngine>(connection);
    impl->fusion = std::filesystem::current_path() / "FUSION";
    return std::shared_ptr<Store>(new Store(std::move(impl)));
}

std::shared_ptr<DbaFile> Store::OpenFile(std::string_view name)
{
    if (!m_impl->engine->fileExists(name)) {
        throw DbaError(DbaError::Kind::NoFile, "OpenFile " + std::string(name), "no such file");
    }
    return std::make_shared<StoreFile>(m_impl->engine, m_impl->sessionKeys, std::string(name));
}

DbaDynArray Store::Select(std::string_view request, std::string_view, std::int32_t& status)
{
    status = 0;
    const DbaDynArray parts{std::string(request)};
    const auto sentenceText = parts.attribute(1);
    const auto file = parts.attribute(2);
    // The sentence names the file; a request that names another is a mistake.
    const auto parsed = sentence::parse(sentenceText);
    if (!file.empty() && file != parsed.file) {
        throw DbaError(DbaError::Kind::BadSentence, "Select",
            "the request names file " + file + " but the sentence selects " + parsed.file);
    }
    return m_impl->select(parsed, parts.attribute(3));
}

DbaDynArray Store::Impl::select(const sentence::Parsed& parsed, std::string_view attributes)
{
    auto asked = sentence::parseAttributeList(attributes);
    if (!sessionKeys->isPrivate(parsed.file)) {
        return engine->select(parsed, asked);
    }
    // The stored key first, to tell this session's records from the others'.
    asked.insert(asked.begin(), 0);
    return sessionKeys->ownRows(engine->select(parsed, asked));
}

DbaDynArray Store::select(std::string_view sentenceText, std::string_view attributes)
{
    return m_impl->select(sentence::parse(sentenceText), attributes);
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

std::vector<DictionaryName> Store::dictionary(std::string_view file)
{
    m_impl->engine->requireFile(file, "dictionary of " + std::string(file));
    std::vector<DictionaryName> out;
    for (auto& name : m_impl->engine->dictionary(file)) {
        out.push_back({std::move(name.name), name.attribute, name.justify});
    }
    return out;
}

void Store::forEachStored(std::string_view file, const std::function<void(std::string_view key, std::string_view record)>& visit)
{
    m_impl->engine->forEach(file, visit);
}

std::optional<std::string> Store::read(std::string_view file, std::string_view key)
{
    if (!m_impl->engine->fileExists(file)) {
        return std::nullopt;
    }
    return m_impl->engine->read(file, m_impl->sessionKeys->stored(file, key));
}

void Store::write(std::string_view file, std::string_view key, std::string_view record)
{
    names::checkWrittenKey(file, key);
    m_impl->engine->write(file, m_impl->sessionKeys->stored(file, key), record);
}

bool Store::remove(std::string_view file, std::string_view key)
{
    return m_impl->engine->remove(file, m_impl->sessionKeys->stored(file, key));
}


void Store::transaction(const std::function<void()>& work)
{
    m_impl->engine->transaction(work);
}

void Store::bulkLoad(const std::function<void()>& work, std::uintmax_t bytes)
{
    const auto& file = m_impl->engine->path();
    if (bytes > 0 && !file.empty()) {
        const auto folder = file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
        std::error_code error;
        const auto space = std::filesystem::space(folder, error);
        const std::uintmax_t needed = bytes * 2;
        if (error) {
            throw DbaError(DbaError::Kind::Storage, "load into " + file.string(), "free space of " + folder.string() + ": " + error.message());
        }
        if (space.available < needed) {
            constexpr std::uintmax_t kMega = 1024 * 1024;
            throw DbaError(DbaError::Kind::Storage, "load into " + file.string(),
                "not enough free space in " + folder.string() + ": about " + std::to_string((needed + kMega - 1) / kMega)
                    + " MB needed, " + std::to_string(space.available / kMega) + " MB free; nothing was loaded");
        }
    }
    auto& engine = *m_impl->engine;
    engine.setSyncEveryCommit(false);
    try {
        work();
    } catch (...) {
        engine.setSyncEveryCommit(true);
        throw;
    }
    engine.setSyncEveryCommit(true);
}

void Store::setClient(std::shared_ptr<DbaClient> client)
{
    m_impl->setSession(client);
    m_impl->client = std::move(client);
}

const std::filesystem::path& Store::path() const
{
    return m_impl->engine->path();
}

} // namespace store

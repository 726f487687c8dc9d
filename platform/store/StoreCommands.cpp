#include "Store.h"

// The store's server commands: Execute "P" in this process or through the
// queue, the worker's side of the queue, and the commands registered.

#include <cerrno>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "StoreImpl.h"

namespace store {

namespace {

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

// The cause of a failure to write in FUSION, in an operator's words.
std::string fusionReason(std::error_code error, const std::filesystem::path& fusion)
{
    if (error == std::errc::no_space_on_device || error.value() == EDQUOT) {
        return "le disque du dossier FUSION (" + fusion.string() + ") est plein";
    }
    if (error == std::errc::read_only_file_system) {
        return "le dossier FUSION (" + fusion.string() + ") est sur un support en lecture seule";
    }
    if (error == std::errc::permission_denied || error == std::errc::operation_not_permitted) {
        return "le dossier FUSION (" + fusion.string() + ") n'est pas accessible en écriture";
    }
    return {};
}
} // namespace

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
    if (m_impl->engine->commandQueue()) {
        return executeQueued(commandText, words.front());
    }
    m_impl->sweepDeadSessions();
    const auto outcome = m_impl->runCommand(*this, words, m_impl->progress, nullptr, nullptr, [](const std::function<void()>& run) { run(); });
    if (!outcome.succeeded) {
        throw DbaError(DbaError::Kind::CommandFailed, "Execute P " + words.front(), outcome.message, outcome.reason);
    }
    return {};
}

void Store::Impl::sweepDeadSessions()
{
    try {
        std::vector<std::string> dead;
        for (const auto& file : sessionKeys->privateFiles()) {
            if (!engine->fileExists(file)) {
                continue;
            }
            engine->forEach(file, [&](std::string_view key, std::string_view) {
                const auto session = SessionKeys::sessionOf(key);
                if (session && SessionKeys::isDeadHere(*session)) {
                    dead.push_back(file + '\n' + std::string(key));
                }
            });
        }
        for (const auto& entry : dead) {
            const auto cut = entry.find('\n');
            engine->remove(entry.substr(0, cut), entry.substr(cut + 1));
        }
    } catch (const std::exception&) {
        // Tidying only: the command that follows says what is wrong with the database.
    }
}

CommandOutcome Store::Impl::runCommand(Store& store, const std::vector<std::string>& words, CommandProgress commandProgress,
    CommandParts* parts, std::function<void(bool)>* settled, const std::function<void(const std::function<void()>&)>& transact)
{
    if (words.empty()) {
        return {false, "no command given", {}};
    }
    const auto found = commands.find(words.front());
    if (found == commands.end()) {
        return {false, "no such server command " + words.front(), "la commande " + words.front() + " n'existe pas sur le serveur"};
    }
    // Copy: the command may unregister itself while it runs.
    const Registered command = found->second;
    std::error_code error;
    std::filesystem::create_directories(fusion, error);
    if (error) {
        return {false, "cannot create " + fusion.string() + ": " + error.message(), fusionReason(error, fusion)};
    }
    CommandContext context{store, fusion, std::vector<std::string>(words.begin() + 1, words.end()), client};
    if (commandProgress) {
        context.progress = std::move(commandProgress);
    }
    context.parts = parts;
    context.settled = settled;
    try {
        if (command.before) {
            command.before(context);
        }
        transact([&] { command.run(context); });
    } catch (const DbaError& failure) {
        return {false, failure.what(), failure.reason()};
    } catch (const std::system_error& failure) {
        return {false, failure.what(), fusionReason(failure.code(), fusion)};
    } catch (const std::exception& failure) {
        return {false, failure.what(), {}};
    }
    return {true, {}, {}};
}

DbaDynArray Store::executeQueued(const std::string& sentence, const std::string& name)
{
    auto& queue = *m_impl->engine->commandQueue();
    const auto& client = m_impl->client;
    // The worker runs the command in this session, which wrote its working records.
    const auto id = queue.enqueue(sentence, client ? client->userName() : std::string(), m_impl->sessionKeys->session());
    if (m_impl->commandQueued) {
        m_impl->commandQueued();
    }
    // What the progress observer throws is the operator cancelling: the
    // command and its parts are withdrawn, so that nobody runs them for nothing.
    // (A server out of reach is left alone: its command is withdrawn once its
    // client is unseen for long enough.)
    bool cancelled = false;
    CommandProgress progress;
    if (m_impl->progress) {
        progress = [&](int done, int total) {
            try {
                m_impl->progress(done, total);
            } catch (...) {
                cancelled = true;
                throw;
            }
        };
    }
    CommandOutcome outcome;
    try {
        outcome = queue.await(id, m_impl->commandTimeout, progress);
    } catch (...) {
        if (cancelled) {
            try {
                queue.cancel(id);
            } catch (const std::exception&) {
                // Out of reach after all: withdrawn later, as above.
            }
        }
        throw;
    }
    if (!outcome.succeeded) {
        throw DbaError(DbaError::Kind::CommandFailed, "Execute P " + name, outcome.message, outcome.reason);
    }
    return {};
}

bool Store::queuesCommands() const
{
    return m_impl->engine->commandQueue() != nullptr;
}

std::uint64_t Store::reconnections() const
{
    return m_impl->engine->reconnections();
}

void Store::setWaitObserver(ServerWaitObserver* observer)
{
    m_impl->engine->setWaitObserver(observer);
}

void Store::setCommandTimeout(std::chrono::milliseconds timeout)
{
    m_impl->commandTimeout = timeout;
}

void Store::setCommandQueued(std::function<void()> queued)
{
    m_impl->commandQueued = std::move(queued);
}

void Store::waitForCommands(std::chrono::milliseconds timeout)
{
    if (auto* queue = m_impl->engine->commandQueue()) {
        queue->waitForCommands(timeout);
    }
}

bool Store::runQueuedCommand(std::string_view worker, std::chrono::seconds lease, const std::function<bool()>& stopping)
{
    auto& engine = *m_impl->engine;
    auto* queue = engine.commandQueue();
    const auto claimed = queue ? queue->claim(worker, lease) : std::nullopt;
    if (!claimed) {
        return false;
    }
    // The command works in the session of the client that asked.
    struct Restore {
        Store::Impl& impl;
        std::shared_ptr<DbaClient> previous;
        ~Restore()
        {
            impl.setSession(previous);
            impl.client = previous;
        }
    } restore{*m_impl, m_impl->client};
    m_impl->client = std::make_shared<DbaClient>(claimed->user, claimed->session);
    m_impl->setSession(m_impl->client);

    // What the command leaves to follow its outcome (its files published) learns whether it committed.
    std::function<void(bool)> settled;
    bool committed = false;
    try {
        committed = queue->complete(*claimed, [&](const CommandProgress& progress) -> CommandOutcome {
            // A command that stopped its workers this often would stop every next one.
            constexpr int kMaxAttempts = 3;
            if (claimed->attempt > kMaxAttempts) {
                return {false, "abandoned: " + std::to_string(kMaxAttempts) + " workers stopped while running it",
                    "la demande a arrêté " + std::to_string(kMaxAttempts) + " programmes serveur (calvarine-server) et a été abandonnée"};
            }
            // Its parts still offered are withdrawn once it ends, before its outcome commits.
            const auto parts = queue->parts(*claimed);
            // The worker is asked to stop: the command ends at its next report, for another worker to run.
            bool handedBack = false;
            const CommandProgress reported = [&](int done, int total) {
                if (stopping && stopping()) {
                    handedBack = true;
                    throw std::runtime_error("the worker is stopping");
                }
                progress(done, total);
            };
            // A failed command leaves none of its records.
            auto outcome = m_impl->runCommand(*this, commandWords(claimed->sentence), reported, parts.get(), &settled,
                [&](const std::function<void()>& run) { engine.transaction(run); });
            if (!outcome.succeeded && settled) {
                std::exchange(settled, nullptr)(false);
            }
            if (handedBack) {
                throw CommandQueue::HandedBack{};
            }
            return outcome;
        });
    } catch (...) {
        if (settled) {
            settled(false);
        }
        throw;
    }
    if (settled) {
        settled(committed);
    }
    return true;
}

void Store::registerCommand(std::string name, ServerCommand command, ServerCommand before)
{
    m_impl->commands[std::move(name)] = {std::move(command), std::move(before)};
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
    m_impl->setSession(client);
    m_impl->client = std::move(client);
}

void Store::setCommandProgress(CommandProgress observer)
{
    m_impl->progress = std::move(observer);
}

} // namespace store

#include "Store.h"

// The store's server commands: Execute "P" in this process or through the
// queue, and the commands registered.

#include <algorithm>
#include <cerrno>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "StoreImpl.h"

namespace store {

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

namespace {

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
        struct Stored {
            std::string file, key, session;
        };
        std::vector<Stored> found;
        for (const auto& file : sessionKeys->privateFiles()) {
            if (!engine->fileExists(file)) {
                continue;
            }
            engine->forEach(file, [&](std::string_view key, std::string_view) {
                if (const auto session = SessionKeys::sessionOf(key)) {
                    found.push_back({file, std::string(key), std::string(*session)});
                }
            });
        }
        if (found.empty()) {
            return;
        }
        std::vector<std::string> sessions;
        for (const auto& stored : found) {
            if (std::find(sessions.begin(), sessions.end(), stored.session) == sessions.end()) {
                sessions.push_back(stored.session);
            }
        }
        // A server says which sessions some connection holds, whatever their host;
        // otherwise only the processes of this host can be judged.
        const auto held = engine->heldSessions(sessions);
        const auto ended = [&](const std::string& session) {
            if (session == sessionKeys->session()) {
                return false; // ours, even should the server have lost our lock
            }
            return held ? std::find(held->begin(), held->end(), session) == held->end() : SessionKeys::isDeadHere(session);
        };
        for (const auto& stored : found) {
            if (ended(stored.session)) {
                engine->remove(stored.file, stored.key);
            }
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
    CommandContext context{store, fusion, std::vector<std::string>(words.begin() + 1, words.end()), client};
    // What the progress observer throws is the operator giving the run up.
    bool cancelled = false;
    if (commandProgress) {
        context.progress = [&cancelled, observer = std::move(commandProgress)](int done, int total) {
            try {
                observer(done, total);
            } catch (...) {
                cancelled = true;
                throw;
            }
        };
    }
    context.parts = parts;
    context.settled = settled;
    const auto failed = [&](CommandOutcome outcome) {
        if (command.failed) {
            try {
                command.failed(context, {outcome.message, outcome.reason, cancelled});
            } catch (const std::exception&) {
                // The command's own failure is what the caller must hear of.
            }
        }
        return outcome;
    };
    std::error_code error;
    std::filesystem::create_directories(fusion, error);
    if (error) {
        return failed({false, "cannot create " + fusion.string() + ": " + error.message(), fusionReason(error, fusion)});
    }
    try {
        if (command.before) {
            command.before(context);
        }
        transact([&] { command.run(context); });
    } catch (const DbaError& failure) {
        return failed({false, failure.what(), failure.reason()});
    } catch (const std::system_error& failure) {
        return failed({false, failure.what(), fusionReason(failure.code(), fusion)});
    } catch (const std::exception& failure) {
        return failed({false, failure.what(), {}});
    }
    return {true, {}, {}};
}

DbaDynArray Store::executeQueued(const std::string& sentence, const std::string& name)
{
    auto& queue = *m_impl->engine->commandQueue();
    m_impl->sweepDeadSessions();
    const auto& client = m_impl->client;
    // The worker runs the command in this session, which wrote its working records.
    const auto id = queue.enqueue(sentence, client ? client->userName() : std::string(), m_impl->sessionKeys->session());
    if (m_impl->commandQueued) {
        m_impl->commandQueued();
    }
    // Tells the command's failure hook of a failure that no worker's run recorded.
    const auto toldFailed = [&](const CommandFailed& failure) {
        const auto found = m_impl->commands.find(name);
        if (found != m_impl->commands.end() && found->second.failed) {
            const auto words = commandWords(sentence);
            CommandContext context{*this, m_impl->fusion, std::vector<std::string>(words.begin() + 1, words.end()), client};
            try {
                found->second.failed(context, failure);
            } catch (const std::exception&) {
                // The failure itself is what the caller must hear of.
            }
        }
    };
    // What the progress observer throws is the operator cancelling: the
    // command and its parts are withdrawn, so that nobody runs them for nothing.
    // (A server out of reach is left alone: its command is withdrawn once its
    // client is unseen for long enough.)
    bool cancelled = false;
    CommandFailed cancel{"cancelled by the operator", {}, true};
    CommandProgress progress;
    if (m_impl->progress) {
        progress = [&](int done, int total) {
            try {
                m_impl->progress(done, total);
            } catch (const DbaError& error) {
                cancelled = true;
                cancel = {error.what(), error.reason(), true};
                throw;
            } catch (...) {
                cancelled = true;
                throw;
            }
        };
    }
    CommandOutcome outcome;
    std::exception_ptr stopped;
    try {
        outcome = queue.await(id, m_impl->commandTimeout, progress);
    } catch (...) {
        if (!cancelled) {
            throw;
        }
        stopped = std::current_exception();
    }
    if (stopped) {
        bool withdrawn = false;
        try {
            withdrawn = queue.cancel(id);
        } catch (const std::exception&) {
            // Out of reach after all: withdrawn later, as above.
            std::rethrow_exception(stopped);
        }
        if (withdrawn) {
            // Its worker's records are undone with its claim: the cancelled run is told here.
            toldFailed(cancel);
            std::rethrow_exception(stopped);
        }
        // It ended before the cancel reached it (Annuler pressed as the last
        // statement was done): what it did stands, and so the operator hears it.
        outcome = queue.await(id, m_impl->commandTimeout, {});
    }
    if (!outcome.succeeded && !outcome.ran) {
        // No worker ran it, so none told of its failure: this side does.
        toldFailed({outcome.message, outcome.reason, false});
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

void Store::setWaitObserver(ServerWaitObserver* observer)
{
    m_impl->engine->setWaitObserver(observer);
}

void Store::setCommandTimeout(std::chrono::milliseconds timeout)
{
    m_impl->commandTimeout = timeout;
}

void Store::registerCommand(std::string name, ServerCommand command, ServerCommand before, CommandFailure failed)
{
    m_impl->commands[std::move(name)] = {std::move(command), std::move(before), std::move(failed)};
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

void Store::setCommandProgress(CommandProgress observer)
{
    m_impl->progress = std::move(observer);
}

} // namespace store

#include "WatchedDatabase.h"

#include <functional>

namespace outcome {

namespace {

// Runs call, noting its failure in exchange before letting it through.
template <typename Call>
auto watched(Exchange& exchange, Call&& call) -> decltype(call())
{
    try {
        return call();
    } catch (const DbaError& failure) {
        if (!failure.isNoRecord()) {
            exchange.failure = failure;
            exchange.failedAfterCommand = exchange.commandRan;
        }
        throw;
    }
}

class WatchedFile final : public DbaFile {
public:
    WatchedFile(std::shared_ptr<DbaFile> inner, std::shared_ptr<Exchange> exchange)
        : m_inner(std::move(inner))
        , m_exchange(std::move(exchange))
    {
    }

    const std::string& name() const noexcept override { return m_inner->name(); }

    std::shared_ptr<DbaItem> ReadItem(std::string_view key) override
    {
        auto item = watched(*m_exchange, [&] { return m_inner->ReadItem(key); });
        return std::make_shared<DbaItem>(shared_from_this(), std::string(key), item->text());
    }

    std::string DeleteItem(std::string_view key) override
    {
        return watched(*m_exchange, [&] { return m_inner->DeleteItem(key); });
    }

    void writeRecord(std::string_view key, std::string_view record) override
    {
        watched(*m_exchange, [&] { m_inner->writeRecord(key, record); });
    }

private:
    std::shared_ptr<DbaFile> m_inner;
    std::shared_ptr<Exchange> m_exchange;
};

} // namespace

WatchedDatabase::WatchedDatabase(std::shared_ptr<DbaDatabase> inner)
    : m_inner(std::move(inner))
    , m_exchange(std::make_shared<Exchange>())
{
}

std::shared_ptr<DbaFile> WatchedDatabase::OpenFile(std::string_view name)
{
    return std::make_shared<WatchedFile>(watched(*m_exchange, [&] { return m_inner->OpenFile(name); }), m_exchange);
}

DbaDynArray WatchedDatabase::Select(std::string_view request, std::string_view options, std::int32_t& status)
{
    return watched(*m_exchange, [&] { return m_inner->Select(request, options, status); });
}

DbaDynArray WatchedDatabase::Execute(std::string_view request, std::string_view options, std::int32_t& status)
{
    const DbaDynArray parts{std::string(request)};
    const std::string operation = parts.attribute(1);
    if (operation == "LOGIN") {
        *m_exchange = Exchange{};
    }
    auto answer = watched(*m_exchange, [&] { return m_inner->Execute(request, options, status); });
    if (operation == "P") {
        m_exchange->commandRan = true;
        m_exchange->failedAfterCommand = false;
        m_exchange->failure.reset();
    }
    return answer;
}

} // namespace outcome

#pragma once

#include <deque>
#include <optional>
#include <string>

namespace script {

// The events of one scenario, oldest first, each as one line.
class EventLog {
public:
    void push(std::string line) { m_events.push_back(std::move(line)); }
    bool empty() const noexcept { return m_events.empty(); }
    // Takes the oldest event off the log; nothing when it is empty.
    std::optional<std::string> take();
    void clear() noexcept { m_events.clear(); }
    const std::deque<std::string>& pending() const noexcept { return m_events; }

    // Whether an event line is the one a scenario expects. The text after the
    // colon of an ERROR line is free, so only what precedes it is compared.
    static bool matches(const std::string& expected, const std::string& actual);

private:
    std::deque<std::string> m_events;
};

} // namespace script

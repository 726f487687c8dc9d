#include "EventLog.h"

namespace script {

std::optional<std::string> EventLog::take()
{
    if (m_events.empty()) {
        return std::nullopt;
    }
    std::string line = std::move(m_events.front());
    m_events.pop_front();
    return line;
}

bool EventLog::matches(const std::string& expected, const std::string& actual)
{
    if (actual.starts_with("ERROR ") && expected.starts_with("ERROR ")) {
        const auto a = actual.find(':');
        const auto e = expected.find(':');
        if (a != std::string::npos && e != std::string::npos) {
            return actual.compare(0, a + 1, expected, 0, e + 1) == 0;
        }
    }
    return expected == actual;
}

} // namespace script

#pragma once

// Sets a flag for the length of a scope.
class ScopedFlag {
public:
    explicit ScopedFlag(bool& flag)
        : m_flag(flag)
        , m_was(flag)
    {
        m_flag = true;
    }
    ~ScopedFlag() { m_flag = m_was; }
    ScopedFlag(const ScopedFlag&) = delete;
    ScopedFlag& operator=(const ScopedFlag&) = delete;

private:
    bool& m_flag;
    bool m_was;
};

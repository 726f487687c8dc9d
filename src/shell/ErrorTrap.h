#pragma once

#include <cstdint>
#include <exception>
#include <stdexcept>

#include "database/DbaError.h"

// The skip-and-continue policy of the procedures that have it: a step that
// fails is skipped, the next step runs, and the code of the latest failure stays
// in force until it is cleared. Failures other than the database's carry the
// language's codes (6 overflow, 9 subscript out of range, 5 anything else).
class ErrorTrap {
public:
    static constexpr std::uint32_t kOverflow = 6;
    static constexpr std::uint32_t kSubscript = 9;
    static constexpr std::uint32_t kOther = 5;

    template <class Step>
    void step(Step&& run)
    {
        try {
            run();
        } catch (const DbaError& e) {
            m_number = e.code();
        } catch (const std::overflow_error&) {
            m_number = kOverflow;
        } catch (const std::out_of_range&) {
            m_number = kSubscript;
        } catch (const std::exception&) {
            m_number = kOther;
        }
    }

    std::uint32_t number() const noexcept { return m_number; }
    bool isNoRecord() const noexcept { return m_number == static_cast<std::uint32_t>(DbaError::Kind::NoRecord); }
    void clear() noexcept { m_number = 0; }

private:
    std::uint32_t m_number = 0;
};

#pragma once

// One wait of a connection on the server, as the host's wait observer hears of
// it (see Store::setWaitObserver). Internal to the store.

#include <algorithm>
#include <chrono>
#include <string>
#include <string_view>
#include <thread>

#include "Store.h"
#include "database/DbaError.h"

namespace store::pg {

// How often a wait is told to the wait observer.
constexpr std::chrono::milliseconds kTellEvery{100};

// One wait on the server as the observer hears of it: told as it goes, over
// when it ends. What the observer throws becomes the call's DbaError.
class Wait {
public:
    Wait(ServerWaitObserver* observer, std::string_view context)
        : m_observer(observer)
        , m_context(context)
    {
    }
    ~Wait()
    {
        if (m_told) {
            m_observer->waited();
        }
    }
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

    // Tells the observer; given up is called before what it threw is rethrown.
    template <typename GivenUp>
    void tell(const GivenUp& givenUp)
    {
        if (!m_observer) {
            return;
        }
        m_told = true;
        try {
            m_observer->waiting(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_start));
        } catch (const DbaError& error) {
            givenUp();
            throw DbaError(DbaError::Kind::Storage, m_context, "the wait for the server was given up: " + error.detail(), error.reason());
        } catch (const std::exception& error) {
            givenUp();
            throw DbaError(DbaError::Kind::Storage, m_context, std::string("the wait for the server was given up: ") + error.what());
        }
    }

    // A poll's timeout in milliseconds: what is left, at most one slice.
    static int sliceOf(std::chrono::steady_clock::duration left)
    {
        return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(std::min<std::chrono::steady_clock::duration>(left, kTellEvery)).count());
    }

    // Sleeps for pause, telling as it goes.
    void sleep(std::chrono::milliseconds pause)
    {
        const auto end = std::chrono::steady_clock::now() + pause;
        for (auto now = std::chrono::steady_clock::now(); now < end; now = std::chrono::steady_clock::now()) {
            std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(end - now, kTellEvery));
            tell([] {});
        }
    }

private:
    ServerWaitObserver* m_observer;
    std::string m_context;
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    bool m_told = false;
};

} // namespace store::pg

#ifndef NK_STATION_CHANGE_LOG_H
#define NK_STATION_CHANGE_LOG_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// The recent changes for the server-sent-events stream: written on the polling thread, read by
// the HTTP threads. Bounded: a reader that falls behind the oldest kept change is told so and
// reloads instead of making the station keep everything.
class ChangeLog
{
public:
    explicit ChangeLog(std::size_t capacity = 20000) : m_capacity(capacity) {}

    void add(std::string text)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_changes.emplace_back(++m_last, std::move(text));
            if (m_changes.size() > m_capacity) m_changes.pop_front();
        }
        m_added.notify_all();
    }

    // The changes after seq, waiting up to wait for one; lost is true when some were dropped.
    std::vector<std::pair<std::uint64_t, std::string>> after(std::uint64_t seq, std::chrono::milliseconds wait,
                                                             bool& lost)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_added.wait_for(lock, wait, [&] { return m_last > seq || m_closed; });
        std::vector<std::pair<std::uint64_t, std::string>> out;
        lost = !m_changes.empty() && m_changes.front().first > seq + 1;
        for (auto const& change : m_changes)
            if (change.first > seq) out.push_back(change);
        return out;
    }

    std::uint64_t last()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_last;
    }

    void close()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_closed = true;
        }
        m_added.notify_all();
    }
    bool closed()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_closed;
    }

private:
    std::size_t m_capacity;
    std::mutex m_mutex;
    std::condition_variable m_added;
    std::deque<std::pair<std::uint64_t, std::string>> m_changes;
    std::uint64_t m_last = 0;
    bool m_closed = false;
};

#endif

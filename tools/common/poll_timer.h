#ifndef NK_TOOLS_POLL_TIMER_H
#define NK_TOOLS_POLL_TIMER_H

#include <chrono>
#include <functional>

#include <asio.hpp>

// Calls a function every period on the io_context's thread until stopped. Engines are polled
// from here as well as when bytes arrive, so time-outs and queued telegrams progress on a
// quiet link.
class PollTimer
{
public:
    PollTimer(asio::io_context& io, std::chrono::milliseconds period, std::function<void()> tick);
    ~PollTimer() { stop(); }
    void stop();

private:
    void arm();

    asio::steady_timer m_timer;
    std::chrono::milliseconds m_period;
    std::function<void()> m_tick;
    bool m_running = true;
};

#endif

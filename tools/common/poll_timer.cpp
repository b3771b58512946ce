#include "poll_timer.h"

PollTimer::PollTimer(asio::io_context& io, std::chrono::milliseconds period, std::function<void()> tick)
    : m_timer(io), m_period(period), m_tick(std::move(tick))
{
    arm();
}

void PollTimer::stop()
{
    m_running = false;
    m_timer.cancel();
}

void PollTimer::arm()
{
    m_timer.expires_after(m_period);
    m_timer.async_wait([this](std::error_code ec) {
        if (ec || !m_running) return;
        m_tick();
        if (m_running) arm();
    });
}

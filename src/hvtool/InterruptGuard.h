#pragma once

namespace hvtool {

/// Catches the interrupts of the terminal (Ctrl-C) and SIGTERM for as long
/// as it lives, so that a long step asked to end does so cleanly: a creation
/// is rolled back, a download keeps what arrived for the next one.
class InterruptGuard
{
public:
    InterruptGuard();
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard &) = delete;
    InterruptGuard &operator=(const InterruptGuard &) = delete;

    /// Whether an interrupt came since the guard was made; any thread may ask.
    static bool interrupted();

private:
    void (*m_int)(int);
    void (*m_term)(int);
};

} // namespace hvtool

#include "InterruptGuard.h"

#include <atomic>
#include <csignal>

namespace hvtool {
namespace {

std::atomic<bool> g_interrupted{false};

extern "C" void interrupt(int)
{
    g_interrupted = true;
}

} // namespace

InterruptGuard::InterruptGuard()
{
    g_interrupted = false;
    m_int = std::signal(SIGINT, interrupt);
    m_term = std::signal(SIGTERM, interrupt);
}

InterruptGuard::~InterruptGuard()
{
    std::signal(SIGINT, m_int);
    std::signal(SIGTERM, m_term);
}

bool InterruptGuard::interrupted()
{
    return g_interrupted.load();
}

} // namespace hvtool

#include "common/stop_signals.h"

volatile sig_atomic_t stop_requested = 0;

namespace {

void request_stop(int)
{
    stop_requested = 1;
}

}  // namespace

sigset_t catch_stop_signals()
{
    sigset_t stop_signals;
    sigset_t wait_mask;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop_signals, &wait_mask);
    sigdelset(&wait_mask, SIGINT);
    sigdelset(&wait_mask, SIGTERM);
    signal(SIGINT, request_stop);
    signal(SIGTERM, request_stop);
    return wait_mask;
}

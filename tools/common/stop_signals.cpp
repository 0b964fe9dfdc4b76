#include "common/stop_signals.h"

sigset_t catch_stop_signals(void (*handler)(int))
{
    sigset_t stop_signals;
    sigset_t wait_mask;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop_signals, &wait_mask);
    sigdelset(&wait_mask, SIGINT);
    sigdelset(&wait_mask, SIGTERM);
    signal(SIGINT, handler);
    signal(SIGTERM, handler);
    return wait_mask;
}

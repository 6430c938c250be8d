#ifndef ZOL_TASK_ZOLSIGHANDLER_H
#define ZOL_TASK_ZOLSIGHANDLER_H

#include <ace/Event_Handler.h>

class ACE_Reactor;

/// Ends the process's work on SIGINT and SIGTERM.
///
/// handle_signal runs in the context of the signal, on whatever thread the kernel has chosen and whatever lock that
/// thread holds. It therefore does only what a signal handler may: write(2), an atomic word, a write to an eventfd.
class CZolSigHandler : public ACE_Event_Handler
{
public:
    static CZolSigHandler *instance();

    /// Always 0: without one of the signals the process starts all the same, and a line says so.
    int init(ACE_Reactor *poReactor);

    int handle_signal(int iSignal, siginfo_t *poInfo = nullptr, ucontext_t *poContext = nullptr) override;

private:
    CZolSigHandler() = default;
};

#endif

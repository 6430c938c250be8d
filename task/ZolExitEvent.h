#ifndef ZOL_TASK_ZOLEXITEVENT_H
#define ZOL_TASK_ZOLEXITEVENT_H

#include <ace/Event_Handler.h>

/// A descriptor that the process's reactor watches, by which exitThreads() ends its wait: writing to it is all that a
/// signal handler may do to a reactor.
class CZolExitEvent : public ACE_Event_Handler
{
public:
    CZolExitEvent();
    ~CZolExitEvent() override;
    CZolExitEvent(const CZolExitEvent &) = delete;
    CZolExitEvent &operator=(const CZolExitEvent &) = delete;

    /// From any thread, and in a signal handler.
    void raise();

    ACE_HANDLE get_handle() const override { return m_oHandle; }
    int handle_input(ACE_HANDLE oHandle) override; ///< ends the loop of the reactor if the process is ending

private:
    const ACE_HANDLE m_oHandle;
};

#endif

#include "task/ZolExitEvent.h"

#include "ZolAppMgr.h"

#include <ace/Reactor.h>
#include <sys/eventfd.h>
#include <unistd.h>

CZolExitEvent::CZolExitEvent() : m_oHandle(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

CZolExitEvent::~CZolExitEvent()
{
    close(m_oHandle);
}

void CZolExitEvent::raise()
{
    const eventfd_t ulOne = 1;
    const ssize_t iIgnored = write(m_oHandle, &ulOne, sizeof ulOne);
    (void)iIgnored; // the counter is full: the event stands already
}

int CZolExitEvent::handle_input(ACE_HANDLE /*oHandle*/)
{
    eventfd_t ulCount = 0;
    const ssize_t iIgnored = read(m_oHandle, &ulCount, sizeof ulCount);
    (void)iIgnored;
    if (CZolAppMgr::instance()->getStatus() == APPMGR_EXIT)
    {
        reactor()->end_reactor_event_loop();
    }
    return 0; // else it was a child of this process, in the moment between its fork and its exec
}

#include "task/ZolSigHandler.h"

#include "ZolAppMgr.h"
#include "ZolRunLog.h"

#include <ace/Reactor.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <unistd.h>

namespace
{

/// To standard output past its buffer, which the interrupted thread may be half-way through.
void writeLine(const char *pcText, size_t uiLength)
{
    ssize_t iIgnored = write(STDOUT_FILENO, pcText, uiLength);
    (void)iIgnored; // there is nobody to tell
}

/// What printf would make of it; printf itself may hold a lock.
void writeUnknownSignal(int iSignal)
{
    const char acFormat[] = "CZolSigHandler::handle_signal unknown signal %d\n";
    char acDigits[12]; // from the back
    size_t uiAt = sizeof acDigits;
    unsigned int uiRest = iSignal < 0 ? 0U - static_cast<unsigned int>(iSignal) : static_cast<unsigned int>(iSignal);
    do
    {
        acDigits[--uiAt] = static_cast<char>('0' + uiRest % 10);
        uiRest /= 10;
    } while (uiRest != 0);
    if (iSignal < 0)
    {
        acDigits[--uiAt] = '-';
    }
    const size_t uiHead = sizeof acFormat - sizeof "%d\n";
    char acLine[sizeof acFormat + sizeof acDigits];
    memcpy(acLine, acFormat, uiHead);
    memcpy(acLine + uiHead, acDigits + uiAt, sizeof acDigits - uiAt);
    acLine[uiHead + sizeof acDigits - uiAt] = '\n';
    writeLine(acLine, uiHead + sizeof acDigits - uiAt + 1);
}

template <size_t uiSize>
void writeLiteral(const char (&acText)[uiSize])
{
    writeLine(acText, uiSize - 1);
}

} // namespace

CZolSigHandler *CZolSigHandler::instance()
{
    static CZolSigHandler *const poInstance = new CZolSigHandler; // leaked: signals come until the very end
    return poInstance;
}

int CZolSigHandler::init(ACE_Reactor *poReactor)
{
    if (poReactor->register_handler(SIGINT, this) == -1)
    {
        CZolRunLog::startupLog("CZolSigHandler::init register handler of SIGINT failed!");
    }
    if (poReactor->register_handler(SIGTERM, this) == -1)
    {
        CZolRunLog::startupLog("CZolSigHandler::init register handler of SIGTERM failed!");
    }
    return 0;
}

int CZolSigHandler::handle_signal(int iSignal, siginfo_t * /*poInfo*/, ucontext_t * /*poContext*/)
{
    const int iErrno = errno;
    switch (iSignal)
    {
    case SIGINT:
        writeLiteral("CZolSigHandler::handle_signal signal SIGINT\n");
        CZolAppMgr::destroy();
        break;
    case SIGTERM:
        writeLiteral("CZolSigHandler::handle_signal signal SIGTERM\n");
        CZolAppMgr::destroy();
        break;
    case SIGPIPE:
        writeLiteral("CZolSigHandler::handle_signal signal SIGPIPE\n");
        break;
    default:
        writeUnknownSignal(iSignal);
        break;
    }
    errno = iErrno;
    return 0;
}

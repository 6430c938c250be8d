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

void writeUnknownSignal(int iSignal)
{
    char acLine[80] = "CZolSigHandler::handle_signal unknown signal ";
    size_t uiLength = strlen(acLine);
    char acDigits[12];
    size_t uiDigits = 0;
    unsigned int uiRest = iSignal < 0 ? 0U - static_cast<unsigned int>(iSignal) : static_cast<unsigned int>(iSignal);
    do
    {
        acDigits[uiDigits++] = static_cast<char>('0' + uiRest % 10);
        uiRest /= 10;
    } while (uiRest != 0);
    if (iSignal < 0)
    {
        acDigits[uiDigits++] = '-';
    }
    while (uiDigits != 0)
    {
        acLine[uiLength++] = acDigits[--uiDigits];
    }
    acLine[uiLength++] = '\n';
    writeLine(acLine, uiLength);
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

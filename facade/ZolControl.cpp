#include "ZolApi.h"
#include "ZolAppMgr.h"
#include "ZolListener.h"
#include "task/ZolInlineTask.h"
#include "transport/ZolAcceptorHandler.h"
#include "transport/ZolConnMgr.h"

// Thin ways to the connection manager and the acceptor, so that an application needs neither class.

namespace
{

const unsigned char INLINE_TASK_MGR = 254;

// The application manager first: it is what the transport asks for the reactor and the stage of the process.
CZolConnMgr &connMgr()
{
    CZolAppMgr::instance();
    return *CZolConnMgr::instance();
}

} // namespace

namespace zol
{

int bindPort(std::uint16_t usPort)
{
    CZolAppMgr::instance(); // see connMgr()
    return CZolAcceptorHandler::instance()->bindPort(usPort);
}

int connect(const std::string &strAddr, std::uint16_t usPort)
{
    return connMgr().initConn(strAddr, usPort, CZolConnection::CONN_INITIATIVE);
}

void setListener(CZolListener &oListener)
{
    connMgr().setListener(&oListener);
}

void setVEKAddrStatus(bool bValid)
{
    connMgr().setVEKAddrStatus(bValid);
}

int setVEKAddress(const std::string &strAddr, std::uint16_t usPort)
{
    return connMgr().setVEKAddress(strAddr, usPort);
}

int connect2VEK()
{
    return connMgr().connect2VEK();
}

void shutVEKConnect()
{
    connMgr().shutVEKConnect();
}

void setProcIDAndHandle(std::uint16_t usProcID, std::uint16_t usProcHandle)
{
    connMgr().setProcIDAndHandle(usProcID, usProcHandle);
}

int debugCmdResend()
{
    CZolTaskMgr *const poTaskMgr = CZolAppMgr::instance()->findTaskMgr(INLINE_TASK_MGR);
    if (poTaskMgr == nullptr)
    {
        return ZOL_ERR_FAILED;
    }
    static_cast<CZolInlineTaskMgr *>(poTaskMgr)->setCmdResend();
    return ZOL_OK;
}

} // namespace zol

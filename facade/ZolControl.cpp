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
}

namespace zol
{

int bindPort(std::uint16_t usPort)
{
    return CZolAcceptorHandler::instance()->bindPort(usPort);
}

int connect(const std::string &strAddr, std::uint16_t usPort)
{
    return CZolConnMgr::instance()->initConn(strAddr, usPort, CZolConnection::CONN_INITIATIVE);
}

void setListener(CZolListener &oListener)
{
    CZolConnMgr::instance()->setListener(&oListener);
}

void setVEKAddrStatus(bool bValid)
{
    CZolConnMgr::instance()->setVEKAddrStatus(bValid);
}

int setVEKAddress(const std::string &strAddr, std::uint16_t usPort)
{
    return CZolConnMgr::instance()->setVEKAddress(strAddr, usPort);
}

int connect2VEK()
{
    return CZolConnMgr::instance()->connect2VEK();
}

void shutVEKConnect()
{
    CZolConnMgr::instance()->shutVEKConnect();
}

void setProcIDAndHandle(std::uint16_t usProcID, std::uint16_t usProcHandle)
{
    CZolConnMgr::instance()->setProcIDAndHandle(usProcID, usProcHandle);
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

#ifndef ZOL_TRANSPORT_ZOLDIRECTCLIENT_H
#define ZOL_TRANSPORT_ZOLDIRECTCLIENT_H

#include "ZolMsgPdu.h"

#include <ace/SOCK_Stream.h>
#include <cstddef>
#include <memory>
#include <string>

/// The client side of one direct exchange: a request, and at most one answer, on a connection of its own that no table
/// knows.
///
/// Threads: that of its caller, which waits for up to both time-outs.
/// Locks:   none.
/// Units:   time-outs are milliseconds; the address is in network order.
/// Errors:  ZOL_ERR_TIMEOUT, else ZOL_ERR_FAILED; each failure has its line.
class CZolDirectClient
{
public:
    CZolDirectClient(unsigned int uiAddr, unsigned short usPort) : m_uiAddr(uiAddr), m_usPort(usPort) {}
    ~CZolDirectClient() { m_oStream.close(); }
    CZolDirectClient(const CZolDirectClient &) = delete;
    CZolDirectClient &operator=(const CZolDirectClient &) = delete;

    /// Once for each object. poRequest is gone and null afterwards, except where the arguments were refused; with
    /// ppoResponse null no answer is waited for, else the answer is the caller's.
    int exchange(CZolMsgPdu *&poRequest, CZolMsgPdu **ppoResponse, int iConnTimeout, int iRecvTimeout);

private:
    int talk(CZolMsgPdu *poRequest, CZolMsgPdu **ppoResponse, int iConnTimeout, int iRecvTimeout);
    int receiveResponse(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse, int iTimeout);
    bool connect(int iTimeout);
    bool waitForConnect(int iTimeout);
    bool send(const CZolMsgPdu *poPdu, std::size_t uiLength, int iTimeout);
    bool recv(void *pvTo, std::size_t uiLength, int iTimeout, const char *pcWhat);
    bool check(int iResult, const char *pcBefore, const char *pcAfter);
    int failure() const; // the code for the failure just met
    std::string endpoint() const;

    const unsigned int m_uiAddr;
    const unsigned short m_usPort;
    ACE_SOCK_Stream m_oStream;
    int m_iError = 0;
};

#endif

#ifndef ZOL_TESTS_SUPPORT_RAWGATEWAY_H
#define ZOL_TESTS_SUPPORT_RAWGATEWAY_H

#include "support/RawPipe.h"

#include <atomic>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

namespace zoltest
{

/// The least of a gateway, on a thread of its own: accepts registrations with a status of the test's choice, echoes
/// hellos, answers subscriptions and address look-ups, and forwards by destination process, id alone for handle 0.
/// Notes every frame that it reads.
class CRawGateway
{
public:
    explicit CRawGateway(unsigned short usPort = 0);
    ~CRawGateway();
    CRawGateway(const CRawGateway &) = delete;
    CRawGateway &operator=(const CRawGateway &) = delete;

    unsigned short port() const { return m_oListener.port(); }
    std::string config() const; ///< lines of zol.cfg that lead here

    void setStatus(int iStatus) { m_iStatus = iStatus; }                ///< of the registrations to come
    void setAllocated(unsigned short usHandle) { m_usNext = usHandle; } ///< handle for the next that asks for one

    std::vector<SFrame> frames() const; ///< all that were read, register requests included
    unsigned int countOfType(unsigned int uiType) const;
    unsigned int pipes() const { return m_uiPipes; } ///< registered now

    void send(const SFrame &oFrame); ///< to the process that the frame names as destination
    void dropAll();                  ///< closes every pipe

private:
    struct SSession
    {
        CRawPipe m_oPipe;
        unsigned short m_usProc = 0;
        unsigned short m_usHandle = 0;
        bool m_bRegistered = false;
    };

    void run();
    bool serve(SSession &oSession); // false: to be closed
    void answerRegister(SSession &oSession, const SFrame &oRequest);
    static void answerLookUp(SSession &oSession, const SFrame &oRequest);
    void route(const SFrame &oFrame); // the caller holds m_oLock

    CRawListener m_oListener;
    std::atomic<int> m_iStatus{0};
    std::atomic<unsigned short> m_usNext{100};
    std::atomic<bool> m_bDrop{false};
    std::atomic<bool> m_bEnd{false};
    std::atomic<unsigned int> m_uiPipes{0};
    mutable std::mutex m_oLock;
    std::vector<SFrame> m_oFrames;   // guarded by m_oLock
    std::list<SSession> m_oSessions; // changed by run() under m_oLock
    std::thread m_oThread;
};

} // namespace zoltest

#endif

#ifndef ZOL_TRANSPORT_ZOLPIPEOPENER_H
#define ZOL_TRANSPORT_ZOLPIPEOPENER_H

#include "transport/ZolConnection.h"
#include "transport/ZolRegisterExchange.h"
#include "transport/ZolSocket.h"

#include <memory>
#include <vector>

/// One opening of a pipe, in steps that never wait, so that a thread can drive many at once: a peer that answers
/// nothing then costs the others nothing.
///
///     CONNECTING --writable--> SENDING --32 bytes out--> READING --32 bytes in--> DONE
///         each state also goes to DONE with a failure; 5 s for the first, 5 s for the other two together
///
/// Threads:   one at a time. From a start() that was accepted to the end, this thread holds m_oPipeLock of the
///            connection exclusive, so start and end are in the same thread.
/// Errors:    getResult() as CZolConnection::connect(); each failure has its line.
class CZolPipeOpener
{
public:
    explicit CZolPipeOpener(CZolConnRef oConn) : m_oConn(std::move(oConn)) {}
    ~CZolPipeOpener();
    CZolPipeOpener(const CZolPipeOpener &) = delete;
    CZolPipeOpener &operator=(const CZolPipeOpener &) = delete;

    /// Takes the lock and begins. With bTry a connection that another thread keeps busy for longer than a close takes
    /// is left alone, with the result -1: the next poll looks again.
    void start(bool bTry);

    /// Goes on as far as possible without waiting.
    void step();

    bool isDone() const { return m_eState == DONE; }
    int getResult() const { return m_iResult; }
    const CZolConnRef &getConnection() const { return m_oConn; }

    /// What poll(2) is to wait for.
    ACE_HANDLE getHandle() const { return m_oConn->getHandle(); }
    short getEvents() const;
    zolsocket::Deadline getDeadline() const { return m_oDeadline; }

    /// Opens all of these at once, so that peers that do not answer cost one wait and not one each. Those that came up.
    static std::vector<CZolConnRef> openAll(const std::vector<CZolConnRef> &oConns);

    /// Drives all of them to their end.
    static void run(const std::vector<std::unique_ptr<CZolPipeOpener>> &oOpeners);

private:
    enum EnumState
    {
        IDLE,
        CONNECTING,
        SENDING,
        READING,
        DONE
    };

    bool lock(bool bTry);
    void begin();
    void connected();
    void failedToConnect();
    void transfer();
    bool send();
    bool read();
    void answered();
    void succeed();
    void fail(const char *pcText); // with the error of errno; null: the line is written
    void finish(int iResult);
    bool isLate() const { return zolsocket::Clock::now() >= m_oDeadline; }

    CZolConnRef m_oConn;
    EnumState m_eState = IDLE;
    bool m_bLocked = false;
    int m_iResult = -1;
    zolsocket::Deadline m_oDeadline{};
    CZolRegisterExchange m_oExchange;
};

#endif

#ifndef ZOL_VEK_NEWCOMERS_H
#define ZOL_VEK_NEWCOMERS_H

#include "gateway/config/ZolVekSettings.h"
#include "gateway/loop/ZolVekListener.h"
#include "gateway/route/ZolVekAgenda.h"
#include "gateway/watch/ZolVekLog.h"
#include "gateway/watch/ZolVekStatistics.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <unordered_map>

/// Connections that have not registered: takes them from the listener, bounds how many there are, of one address too,
/// and ends those that wait for too long.
///
/// Threads: the routing thread only.
class CZolVekNewcomers
{
public:
    using TIsOpen = std::function<bool(CZolVekSession *)>; ///< whether there is a session at that address

    CZolVekNewcomers(const SZolVekSettings &oSettings, SZolVekStatistics &oStatistics, SZolVekAgenda &oAgenda)
        : m_oSettings(oSettings), m_oStatistics(oStatistics), m_oAgenda(oAgenda)
    {
    }
    CZolVekNewcomers(const CZolVekNewcomers &) = delete;
    CZolVekNewcomers &operator=(const CZolVekNewcomers &) = delete;

    /// Listens; iEpoll tells ulEvent when somebody has come. False with a line in strError.
    bool open(int iEpoll, std::uint64_t ulEvent, std::string &strError);

    std::uint16_t port() const { return m_oListener.port(); }

    /// The next connection, or -1 when there is none for now. uiUnregistered is how many have not registered yet.
    int accept(unsigned int uiUnregistered, std::uint32_t &uiAddress, std::uint16_t &usPort);

    /// oSession has come, or has gone.
    void came(CZolVekSession &oSession);
    void gone(const CZolVekSession &oSession);

    /// At each tick: closes those whose time is over, and listens again when there is room.
    void sweep(unsigned int uiUnregistered, bool bDraining, const TIsOpen &fnIsOpen);

    bool isEmpty() const { return m_oNewcomers.empty(); }

private:
    struct SNewcomer
    {
        CZolVekSession *m_poSession;
        std::uint64_t m_ulSerial;
        std::uint64_t m_ulCameMs;
    };

    bool listen();
    void stopListening();
    bool isCrowded(std::uint32_t uiAddress);

    const SZolVekSettings &m_oSettings;
    SZolVekStatistics &m_oStatistics;
    SZolVekAgenda &m_oAgenda;

    CZolVekListener m_oListener;
    int m_iEpoll = -1;
    std::uint64_t m_ulEvent = 0;
    bool m_bListening = false; // the listener is in the epoll set
    std::deque<SNewcomer>
        m_oNewcomers; // in the order of accepting; a serial that does not agree has registered or gone
    std::unordered_map<std::uint32_t, unsigned int> m_oByAddress; // connections of each address, by host order
    CZolVekRateLimit m_oCrowdLines;
};

#endif

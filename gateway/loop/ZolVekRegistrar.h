#ifndef ZOL_VEK_REGISTRAR_H
#define ZOL_VEK_REGISTRAR_H

#include "gateway/config/ZolVekSettings.h"
#include "gateway/route/ZolVekAgenda.h"
#include "gateway/route/ZolVekPolicy.h"
#include "gateway/route/ZolVekRoutes.h"
#include "gateway/watch/ZolVekLog.h"
#include "gateway/watch/ZolVekStatistics.h"

#include <vector>

/// Answers the first message of each pipe: who may have which key.
///
/// A key that is up may belong to a machine that is dead. Before the newcomer is refused, the old pipe is *probed*: it
/// gets a hello, and if the kernel at its other end has acknowledged that within the time set, the process is taken for
/// alive and the newcomer gets -9; else the old pipe is closed and the newcomer takes its place. Bytes cannot be asked
/// for, since a process answers no hello on its gateway pipe. The hello waits until everything that has come from the
/// old pipe is read: it would reset the connection of a process that has just ended, and lose what that had sent.
///
/// Threads: the routing thread only.
class CZolVekRegistrar
{
public:
    CZolVekRegistrar(const SZolVekSettings &oSettings, SZolVekStatistics &oStatistics, CZolVekRoutes &oRoutes,
                     SZolVekAgenda &oAgenda)
        : m_oSettings(oSettings), m_oStatistics(oStatistics), m_oRoutes(oRoutes), m_oAgenda(oAgenda),
          m_oPolicy(oSettings)
    {
    }

    /// The first frame of a pipe. Afterwards it is up, refused, being probed for, or to be closed.
    void first(CZolVekSession &oSession, const CZolVekFrame &oFrame);

    /// Looks at the probes under way.
    void tick();

    /// A pipe has gone: newcomers for its key, if any, take its place.
    void gone(CZolVekSession &oSession);

    /// From now on every registration is refused with -1.
    void drain() { m_bDraining = true; }

    bool isProbing() const { return !m_oProbes.empty(); }

private:
    struct SProbe
    {
        CZolVekSession *m_poNewcomer;
        CZolVekSession *m_poOld;
        std::uint64_t m_ulStartMs;
        std::uint64_t m_ulAskedMs; // when the hello was written; 0 before
        char m_acRequest[zolwire::HEADER_BYTES];
    };

    void startProbe(CZolVekSession &oNewcomer, CZolVekSession &oOld, const char *pcRequest);
    bool look(SProbe &oProbe); ///< true if the old process lives
    static bool isQuiet(const CZolVekSession &oOld);
    static bool isAlive(const SProbe &oProbe, std::uint64_t ulNowMs);
    int admit(const CZolVekSession &oSession, std::uint16_t usProcID) const;
    void accept(CZolVekSession &oSession, const char *pcRequest, TZolVekKey uiKey);
    void refuse(CZolVekSession &oSession, const char *pcRequest, int iStatus);
    void respond(CZolVekSession &oSession, const char *pcRequest, std::uint16_t usHandle, int iStatus);

    const SZolVekSettings &m_oSettings;
    SZolVekStatistics &m_oStatistics;
    CZolVekRoutes &m_oRoutes;
    SZolVekAgenda &m_oAgenda;
    const CZolVekPolicy m_oPolicy;

    std::vector<SProbe> m_oProbes;
    CZolVekRateLimit m_oRefusalLines; // by address
    bool m_bDraining = false;
};

#endif

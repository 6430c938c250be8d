#ifndef ZOL_TESTS_FUZZ_TRANSPORTFUZZ_H
#define ZOL_TESTS_FUZZ_TRANSPORTFUZZ_H

#include "ZolErrors.h"
#include "ZolMemMan.h"
#include "transport/ZolHost.h"

#include <ace/Reactor.h>
#include <cstdlib>

inline void require(bool bHolds)
{
    if (!bHolds)
    {
        std::abort();
    }
}

/// A process without anything in it, for the transport to serve.
class CFuzzHost : public IZolHost
{
public:
    ACE_Reactor *getReactor() override { return &m_oReactor; }
    bool isRunning() const override { return true; }
    bool isExiting() const override { return false; }
    bool takeInitialResponse(CZolMsgPdu *) override { return false; }
    int sendLocal(CZolMsgPdu *&poPdu, unsigned char) override
    {
        delete poPdu;
        poPdu = nullptr;
        return ZOL_ERR_STAGE;
    }
    bool hasQueued(unsigned char) override { return false; }
    int subscribe(unsigned int, unsigned char, unsigned short) override { return ZOL_OK; }

private:
    ACE_Reactor m_oReactor;
};

#endif

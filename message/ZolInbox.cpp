#include "message/ZolInbox.h"

#include "ZolErrors.h"

#include <atomic>

namespace
{

class CNoInbox : public IZolInbox
{
public:
    bool hasTaskMgr(unsigned char /*ucTaskMgrID*/) const override { return false; }
    int deliver(CZolMemBlock * /*poBlock*/, unsigned char /*ucTaskMgrID*/, bool /*bPriority*/) override
    {
        return ZOL_ERR_NO_DEST;
    }
    int deliverRequests(CZolMemList & /*oRequests*/, unsigned char /*ucTaskMgrID*/) override { return ZOL_ERR_NO_DEST; }
};

std::atomic<IZolInbox *> g_poInbox{nullptr};

} // namespace

IZolInbox &zolInbox()
{
    IZolInbox *poInbox = g_poInbox.load(std::memory_order_acquire);
    if (poInbox == nullptr)
    {
        static IZolInbox *const poNone = new CNoInbox; // NOLINT: threads may outlive main
        return *poNone;
    }
    return *poInbox;
}

void zolSetInbox(IZolInbox &oInbox)
{
    g_poInbox.store(&oInbox, std::memory_order_release);
}

#include "gateway/route/ZolVekRoutes.h"

#include <gtest/gtest.h>

namespace
{

CZolVekSession *session(std::uintptr_t uiNumber)
{
    return reinterpret_cast<CZolVekSession *>(uiNumber * 64); // the table only keeps it
}

class RoutesTest : public testing::Test
{
protected:
    std::uint16_t allocate(std::uint64_t ulNowMs)
    {
        std::uint16_t usHandle = 0;
        if (m_oRoutes.allocate(7, ulNowMs, usHandle))
        {
            m_oRoutes.add(zolVekKey(7, usHandle), session(usHandle));
        }
        return usHandle;
    }
    CZolVekRoutes m_oRoutes;
};

TEST_F(RoutesTest, GivesTheLowestFreeHandleThatHasRested)
{
    m_oRoutes.rest(60000);
    m_oRoutes.add(zolVekKey(7, 2), session(2)); // brought its own
    EXPECT_EQ(1, allocate(1000));
    EXPECT_EQ(3, allocate(1000));
    m_oRoutes.remove(zolVekKey(7, 1), 2000);
    EXPECT_EQ(4, allocate(3000)) << "1 rests";
    EXPECT_EQ(5, allocate(61999)) << "1 rests to the last millisecond";
    EXPECT_EQ(1, allocate(62000));
    m_oRoutes.remove(zolVekKey(7, 3), 70000);
    m_oRoutes.add(zolVekKey(7, 3), session(3)); // somebody brings a resting one as its own
    EXPECT_EQ(6, allocate(200000)) << "3 is in use again";
    for (std::uint16_t usHandle = 1; usHandle <= 6; ++usHandle)
    {
        m_oRoutes.remove(zolVekKey(7, usHandle), 300000);
    }
    m_oRoutes.tick(359999);
    EXPECT_EQ(1u, m_oRoutes.processes());
    m_oRoutes.tick(360000);
    EXPECT_EQ(0u, m_oRoutes.processes()) << "of an id without pipes nothing is kept once its handles have rested";
    m_oRoutes.add(zolVekKey(8, 0), session(8));
    m_oRoutes.remove(zolVekKey(8, 0), 400000);
    EXPECT_EQ(0u, m_oRoutes.processes());
}

TEST_F(RoutesTest, GivesRestingHandlesOnlyWhenNoOtherIsFree)
{
    for (unsigned int i = 1; i < 65535; ++i)
    {
        ASSERT_EQ(i, allocate(0));
    }
    m_oRoutes.add(zolVekKey(7, 65535), session(65535));
    m_oRoutes.remove(zolVekKey(7, 65535), 0);
    EXPECT_EQ(0, allocate(0)) << "65535 is not given out, free or at rest";
    m_oRoutes.remove(zolVekKey(7, 500), 1000);
    m_oRoutes.remove(zolVekKey(7, 20), 1001);
    EXPECT_EQ(500, allocate(1002)) << "the longest free one first";
    EXPECT_EQ(20, allocate(1002));
    EXPECT_EQ(0, allocate(1002));
}

} // namespace

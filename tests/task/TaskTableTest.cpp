#include "ZolTaskMgr.h"

#include <gtest/gtest.h>
#include <set>

namespace
{

constexpr unsigned short FIRST = 33;
constexpr unsigned short LAST = 60000;

class CCounted : public CZolTask
{
public:
    explicit CCounted(int &iAlive) : m_iAlive(iAlive) { ++m_iAlive; }
    ~CCounted() override { --m_iAlive; }

private:
    int &m_iAlive;
};

} // namespace

// A dump shows the chains in order and each chain from its front, where the newest node stands.
TEST(TaskTableTest, PutsNewNodesInFrontOfTheirChain)
{
    CZolTaskTable oTable;
    unsigned short usOther = 2; // an id that falls into the chain of id 1
    while (((usOther * 40507U & 0xFFFFU) >> 10) != ((1 * 40507U & 0xFFFFU) >> 10))
    {
        ++usOther;
    }
    const unsigned short usChain = (1 * 40507U & 0xFFFFU) >> 10;
    ASSERT_TRUE(oTable.insert(new CZolTask, 1));
    ASSERT_TRUE(oTable.insert(new CZolTask, usOther));
    ASSERT_EQ(64, oTable.bucketCount());
    const SZolTaskNode *poNode = oTable.bucket(usChain);
    ASSERT_NE(nullptr, poNode);
    EXPECT_EQ(usOther, poNode->m_usTaskID);
    ASSERT_NE(nullptr, poNode->m_poNextNode);
    EXPECT_EQ(1, poNode->m_poNextNode->m_usTaskID);
    EXPECT_EQ(nullptr, poNode->m_poNextNode->m_poNextNode);
}

TEST(TaskTableTest, KeepsTheChainWhenANodeIsTakenOutAnywhere)
{
    for (const int iTaken : {0, 1, 2})
    {
        SCOPED_TRACE(iTaken);
        int iAlive = 0;
        std::vector<unsigned short> oIDs; // three ids of one chain
        for (unsigned short usID = FIRST; oIDs.size() < 3; ++usID)
        {
            if ((usID * 40507U & 0xFFFFU) >> 10 == 7)
            {
                oIDs.push_back(usID);
            }
        }
        {
            CZolTaskTable oTable;
            for (const unsigned short usID : oIDs)
            {
                ASSERT_TRUE(oTable.insert(new CCounted(iAlive), usID));
            }
            CZolTask *poTask = oTable.find(oIDs[iTaken]);
            EXPECT_EQ(poTask, oTable.unlink(oIDs[iTaken]));
            EXPECT_EQ(nullptr, oTable.find(oIDs[iTaken]));
            EXPECT_EQ(nullptr, oTable.unlink(oIDs[iTaken]));
            EXPECT_TRUE(oTable.isTaken(oIDs[iTaken])) << "an id must stay taken until it is released";
            delete poTask;
            std::vector<unsigned short> oLeft;
            for (const auto *poNode = oTable.bucket(7); poNode != nullptr; poNode = poNode->m_poNextNode)
            {
                oLeft.push_back(poNode->m_usTaskID);
            }
            std::vector<unsigned short> oExpected(oIDs.rbegin(), oIDs.rend());
            oExpected.erase(oExpected.begin() + (2 - iTaken));
            EXPECT_EQ(oExpected, oLeft);
        }
        EXPECT_EQ(0, iAlive) << "the table owns its tasks";
    }
}

TEST(TaskTableTest, FindsTheNextFreeIdInTheRing)
{
    int iAlive = 0;
    CZolTaskTable oTable;
    for (unsigned int uiID = FIRST; uiID <= LAST; ++uiID)
    {
        ASSERT_TRUE(oTable.insert(new CCounted(iAlive), static_cast<unsigned short>(uiID)));
    }
    const struct
    {
        const char *pcName;
        std::set<unsigned short> oFree;
        unsigned short usFrom;
        unsigned short usFound;
    } aCases[] = {
        {"none free", {}, 100, 0},
        {"none free, from the first", {}, FIRST, 0},
        {"the one asked for", {100}, 100, 100},
        {"the next one", {99, 101}, 100, 101},
        {"far away", {59999}, 34, 59999},
        {"the last of all", {LAST}, 40, LAST},
        {"the last, from the last", {LAST}, LAST, LAST},
        {"round the end to the first", {FIRST}, LAST, FIRST},
        {"round the end to the one before", {4999}, 5000, 4999},
        {"on both sides of a word of the map", {63, 64}, 64, 64},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        for (const unsigned short usID : oCase.oFree)
        {
            delete oTable.unlink(usID);
            oTable.release(usID);
        }
        EXPECT_EQ(oCase.usFound, oTable.findFree(oCase.usFrom, FIRST, LAST));
        for (const unsigned short usID : oCase.oFree)
        {
            ASSERT_TRUE(oTable.insert(new CCounted(iAlive), usID));
        }
    }
    EXPECT_FALSE(oTable.isTaken(1));
    EXPECT_FALSE(oTable.isTaken(60001));
    EXPECT_FALSE(oTable.isTaken(65535));
}

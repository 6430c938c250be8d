// What a peer can do with the nesting of a BER value: none of it may run the stack of the decoding thread over.

#include "facade/ZolBerNesting.h"
#include "zol.h"

#include <Nested.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>

namespace
{

const unsigned int LIMIT = ZOL_MAX_BER_LEVELS;

std::string repeat(const std::string &strText, unsigned int uiCount)
{
    std::string strAll;
    strAll.reserve(strText.size() * uiCount);
    for (unsigned int uiTime = 0; uiTime < uiCount; ++uiTime)
    {
        strAll += strText;
    }
    return strAll;
}

/// strBody as the content of a constructed value with that tag and a length of its own.
std::string wrap(char cTag, const std::string &strBody)
{
    std::string strHead = {cTag, '\x84', '\0', '\0', '\0', '\0'};
    for (unsigned int uiByte = 0; uiByte < 4; ++uiByte)
    {
        strHead[2 + uiByte] = static_cast<char>(strBody.size() >> (24 - 8 * uiByte));
    }
    return strHead + strBody;
}

const std::string OPEN_LIST("\x30\x80\xa1\x80", 4); // a NestedList and the tag of its member more, both indefinite
const std::string OPEN_TREE("\xa1\x80", 2);
const std::string CLOSE("\0\0", 2);

/// uiLists lists in each other, each of two levels but the innermost.
std::string nestedLists(unsigned int uiLists)
{
    return repeat(OPEN_LIST, uiLists - 1) + std::string("\x30\x80", 2) + repeat(CLOSE, 2 * uiLists - 1);
}

/// The same with every length stated.
std::string nestedDefiniteLists(unsigned int uiLists)
{
    std::string strAll = wrap('\x30', "");
    for (unsigned int uiList = 1; uiList < uiLists; ++uiList)
    {
        strAll = wrap('\x30', wrap('\xa1', strAll));
    }
    return strAll;
}

int decode(const std::string &strBody, SNACC::AsnType &oTarget)
{
    const std::unique_ptr<CZolMsgPdu> oMsg(
        zol::encodeReq(1, strBody.data(), static_cast<std::uint32_t>(strBody.size()), 1, 1, 1));
    return oMsg == nullptr ? ZOL_ERR_FAILED : zol::decodeAsn(*oMsg, oTarget);
}

template <typename Type>
int decodeAs(const std::string &strBody)
{
    Type oTarget;
    return decode(strBody, oTarget);
}

} // namespace

TEST(NestingTest, SurvivesEveryDepth)
{
    for (const unsigned int uiDepth : {1000U, 10000U, 1000000U})
    {
        const struct
        {
            const char *pcName;
            std::string strBody;
        } aCases[] = {
            {"lists, closed", nestedLists(uiDepth)},
            {"lists, cut", repeat(OPEN_LIST, uiDepth)},
            {"trees, cut", repeat(OPEN_TREE, uiDepth)},
            {"trees, closed", repeat(OPEN_TREE, uiDepth) + repeat(CLOSE, uiDepth)},
            {"strings in strings", repeat(std::string("\x24\x80", 2), uiDepth) + repeat(CLOSE, uiDepth)},
            {"each longer than the one around it", repeat(std::string("\x30\x02", 2), uiDepth)},
            {"a stated length around indefinite ones", wrap('\x30', repeat(OPEN_LIST, uiDepth))},
            {"a length of 0 and yet a member", repeat(std::string("\x30\x01\xa1\x80", 4), uiDepth)},
        };
        for (const auto &oCase : aCases)
        {
            SCOPED_TRACE(std::string(oCase.pcName) + " " + std::to_string(uiDepth));
            EXPECT_NE(ZOL_ERR_FAILED, decodeAs<SNACC::NestedList>(oCase.strBody));
            EXPECT_NE(ZOL_ERR_FAILED, decodeAs<SNACC::NestedTree>(oCase.strBody));
            EXPECT_NE(ZOL_ERR_FAILED, decodeAs<SNACC::AsnOcts>(oCase.strBody));
            EXPECT_NE(ZOL_ERR_FAILED, decodeAs<SNACC::AsnAny>(oCase.strBody));
        }
    }
}

// The line between what is decoded and what is refused, in both forms of length. Two levels for each list but the last.
TEST(NestingTest, DecodesUpToTheLimitAndNoFurther)
{
    const unsigned int uiMost = (LIMIT + 1) / 2;
    EXPECT_EQ(ZOL_OK, decodeAs<SNACC::NestedList>(nestedLists(uiMost)));
    EXPECT_EQ(ZOL_OK, decodeAs<SNACC::NestedList>(nestedDefiniteLists(uiMost)));
    EXPECT_EQ(ZOL_ERR_DECODE, decodeAs<SNACC::NestedList>(nestedLists(uiMost + 1)));
    EXPECT_EQ(ZOL_ERR_DECODE, decodeAs<SNACC::NestedList>(nestedDefiniteLists(uiMost + 1)));
}

// Not the number of values but their depth is bounded, and a value that was left no longer counts.
TEST(NestingTest, TakesBroadValues)
{
    SNACC::NestedTree oTree;
    oTree.choiceId = SNACC::NestedTree::branchesCid;
    oTree.branches = new SNACC::NestedTrees;
    for (int iLeaf = 0; iLeaf < 100000; ++iLeaf)
    {
        SNACC::NestedTree &oLeaf = *oTree.branches->append();
        oLeaf.choiceId = SNACC::NestedTree::leafCid;
        oLeaf.leaf = new SNACC::AsnInt(iLeaf);
    }
    const std::unique_ptr<CZolMsgPdu> oMsg(zol::encodeReq(1, &oTree, 1, 1, 1));
    ASSERT_NE(nullptr, oMsg);
    SNACC::NestedTree oCopy;
    ASSERT_EQ(ZOL_OK, zol::decodeAsn(*oMsg, oCopy));
    ASSERT_EQ(100000U, oCopy.branches->size());
    EXPECT_EQ(99999, static_cast<int>(*oCopy.branches->back().leaf));
}

// A refused form must be refused at every cut, and no cut may read past the end (the sanitizer watches it).
TEST(NestingTest, RefusesEveryCut)
{
    const std::string strForms[] = {nestedLists(600), nestedDefiniteLists(300)};
    for (const std::string &strWhole : strForms)
    {
        for (size_t uiLength = 2 * LIMIT + 1; uiLength < strWhole.size(); ++uiLength)
        {
            const auto oCut = std::make_unique<char[]>(uiLength);
            strWhole.copy(oCut.get(), uiLength);
            ASSERT_FALSE(zolIsBerNestingSafe(oCut.get(), uiLength)) << uiLength;
        }
    }
}

TEST(NestingTest, JudgesHeadsAsTheyStand)
{
    const std::string strLong(2 * LIMIT, 'x'); // long enough to be looked at
    const struct
    {
        const char *pcName;
        std::string strBody;
        bool bSafe;
    } aCases[] = {
        {"primitive, and bytes behind it", std::string("\x04\x01", 2) + strLong, true},
        {"long tag", std::string("\x1f\x81\x01\x01", 4) + strLong, true},
        {"tag without an end", std::string(2 * LIMIT + 1, '\xff'), false},
        {"length of 8 bytes", std::string("\x04\x88\0\0\0\0\0\0\0\x01", 10) + strLong, true},
        {"length of 9 bytes", std::string("\x04\x89\0\0\0\0\0\0\0\0\x01", 11) + strLong, false},
        {"length that wraps a sum", std::string("\x30\x88\xff\xff\xff\xff\xff\xff\xff\xf6", 10) + strLong, false},
        {"length of 127 bytes", std::string("\x30\xff", 2) + strLong, false},
        {"primitive without a length", std::string("\x04\x80", 2) + strLong, false},
        {"end-of-contents alone", CLOSE + strLong, true},
        {"end-of-contents in a stated length", std::string("\x30\x02\0\0", 4) + strLong, true},
        {"indefinite inside a stated length", std::string("\x30\x04\x30\x80\0\0\0\0", 8) + strLong, true},
        {"indefinite cut before its end", std::string("\x30\x03\x30\x80\0\0\0\0", 8) + strLong, false},
        {"child one byte too long", std::string("\x30\x03\x04\x02", 4) + strLong, false},
    };
    for (const auto &oCase : aCases)
    {
        EXPECT_EQ(oCase.bSafe, zolIsBerNestingSafe(oCase.strBody.data(), oCase.strBody.size())) << oCase.pcName;
    }
}

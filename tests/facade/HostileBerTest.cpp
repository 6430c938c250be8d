// What a peer can do to a decoder with the nesting and the lengths of BER values: nothing but a refusal comes of it, no
// stack that runs over, no memory that is freed twice.

#include "zol.h"

#include <Nested.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace
{

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

template <typename Type>
int decodeAs(const std::string &strBody)
{
    Type oTarget;
    const std::unique_ptr<CZolMsgPdu> oMsg(
        zol::encodeReq(1, strBody.data(), static_cast<std::uint32_t>(strBody.size()), 1, 1, 1));
    return oMsg == nullptr ? ZOL_ERR_FAILED : zol::decodeAsn(*oMsg, oTarget);
}

/// As every type that can be harmed. The targets are gone when this returns, which is when some of the harm would show.
void decodeAsAll(const std::string &strBody)
{
    EXPECT_NE(ZOL_ERR_FAILED, decodeAs<SNACC::NestedList>(strBody));
    EXPECT_NE(ZOL_ERR_FAILED, decodeAs<SNACC::NestedTree>(strBody));
    EXPECT_NE(ZOL_ERR_FAILED, decodeAs<SNACC::AsnInt>(strBody));
    EXPECT_NE(ZOL_ERR_FAILED, decodeAs<SNACC::AsnOcts>(strBody));
    EXPECT_NE(ZOL_ERR_FAILED, decodeAs<SNACC::AsnBits>(strBody));
    EXPECT_NE(ZOL_ERR_FAILED, decodeAs<SNACC::UTF8String>(strBody));
    EXPECT_NE(ZOL_ERR_FAILED, decodeAs<SNACC::AsnAny>(strBody));
}

} // namespace

TEST(HostileBerTest, SurvivesEveryDepth)
{
    for (const unsigned int uiDepth : {1000U, 10000U, 200000U})
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
            {"empty, and yet read on", repeat(std::string("\xa1\x00", 2), uiDepth)},
            {"empty at first", std::string("\xa1\x00", 2) + repeat(OPEN_TREE, uiDepth)},
        };
        for (const auto &oCase : aCases)
        {
            SCOPED_TRACE(std::string(oCase.pcName) + " " + std::to_string(uiDepth));
            decodeAsAll(oCase.strBody);
        }
    }
}

// Not the number of values but their depth is bounded.
TEST(HostileBerTest, TakesBroadValues)
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

// Wherever a message ends, the rest of it is missing and must not be made up.
TEST(HostileBerTest, RefusesEveryCut)
{
    EXPECT_EQ(ZOL_OK, decodeAs<SNACC::NestedList>(nestedLists(200))) << "a depth in reason";
    EXPECT_EQ(ZOL_OK, decodeAs<SNACC::NestedList>(nestedDefiniteLists(200)));
    for (const std::string &strWhole : {nestedLists(20), nestedDefiniteLists(20)})
    {
        ASSERT_EQ(ZOL_OK, decodeAs<SNACC::NestedList>(strWhole));
        for (size_t uiLength = 0; uiLength < strWhole.size(); ++uiLength)
        {
            EXPECT_EQ(ZOL_ERR_DECODE, decodeAs<SNACC::NestedList>(strWhole.substr(0, uiLength))) << uiLength;
        }
    }
    const std::string strPieces("\x24\x09\x04\x02"
                                "ab\x24\x03\x04\x01"
                                "c",
                                11);
    ASSERT_EQ(ZOL_OK, decodeAs<SNACC::AsnOcts>(strPieces));
    for (size_t uiLength = 0; uiLength < strPieces.size(); ++uiLength)
    {
        EXPECT_EQ(ZOL_ERR_DECODE, decodeAs<SNACC::AsnOcts>(strPieces.substr(0, uiLength))) << uiLength;
    }
}

// For each kind of value: a length that no memory has, that no sum has, and that is one too long. Some of them alone,
// without the guard, free the number of an integer twice or copy from a null pointer.
TEST(HostileBerTest, RefusesLengthsThatAreNotThere)
{
    const std::string aLengths[] = {std::string("\x88\x7f\xff\xff\xff\xff\xff\xff\xff", 9),
                                    std::string("\x88\xff\xff\xff\xff\xff\xff\xff\xfe", 9),
                                    std::string("\x88\xff\xff\xff\xff\xff\xff\xff\xff", 9),
                                    std::string("\x86\x01\0\0\0\0\0", 7),
                                    std::string("\x84\xff\xff\xff\xff", 5),
                                    std::string("\x84\x7f\xff\xff\xff", 5),
                                    std::string("\x02", 1)};
    for (const char cTag : {'\x02', '\x03', '\x04', '\x0c', '\x16', '\x23', '\x24', '\x30', '\xa0', '\xa1'})
    {
        for (const std::string &strLength : aLengths)
        {
            const std::string strValue = std::string(1, cTag) + strLength + "\x01";
            decodeAsAll(strValue);
            decodeAsAll(wrap('\x30', wrap('\xa0', strValue)));
            decodeAsAll(std::string("\x24\x80", 2) + strValue);
            decodeAsAll(std::string("\x24", 1) + static_cast<char>(strValue.size()) + strValue);
            decodeAsAll(std::string("\x30\x80\xa0\x80", 4) + strValue);
        }
    }
    EXPECT_EQ(ZOL_ERR_DECODE, decodeAs<SNACC::AsnInt>("\x02\x02\x01"));
    EXPECT_EQ(ZOL_ERR_DECODE, decodeAs<SNACC::AsnOcts>("\x24\x04\x04\x02"));
}

// The guard follows what decoders do with their input: measure what is left, read content byte by byte or at once, go
// back. None of it may make it see heads where there are none.
TEST(HostileBerTest, TakesContentsThatLookLikeHeads)
{
    const std::string strContent = repeat(std::string("\x30\x84\xff\xff\xff\xff\x02\x88\x7f", 9), 100);
    const SNACC::AsnOcts oOcts(strContent.data(), strContent.size());
    SNACC::AsnBits oBits(reinterpret_cast<const unsigned char *>(strContent.data()), strContent.size() * 8);
    SNACC::NestedBag oBag;
    oBag.octets = oOcts;
    oBag.bits = oBits;
    oBag.text = SNACC::VisibleString(std::string(300, 'x'));
    oBag.flag = true;
    oBag.empty = SNACC::IA5String(std::string());
    const std::unique_ptr<CZolMsgPdu> oMsg(zol::encodeReq(1, &oBag, 1, 1, 1));
    ASSERT_NE(nullptr, oMsg);
    SNACC::NestedBag oCopy;
    ASSERT_EQ(ZOL_OK, zol::decodeAsn(*oMsg, oCopy));
    EXPECT_TRUE(oCopy.octets == oOcts);
    EXPECT_TRUE(oCopy.bits == oBits);
    EXPECT_TRUE(oCopy.flag);
}

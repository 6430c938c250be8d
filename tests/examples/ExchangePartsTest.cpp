#include "examples/exchange/Book.h"
#include "examples/exchange/OrderFile.h"
#include "support/Installation.h"

#include <climits>
#include <fstream>
#include <gtest/gtest.h>

using namespace exchange;

namespace
{

const bool BUY = false;
const bool SELL = true;

std::string textOf(const std::vector<SQuote> &oQuotes)
{
    std::string strText;
    for (const SQuote &oQuote : oQuotes)
    {
        strText += oQuote.m_strSymbol + (oQuote.m_bSell ? " sell " : " buy ") + std::to_string(oQuote.m_iPrice) + ' ' +
                   std::to_string(oQuote.m_iQuantity) + '\n';
    }
    return strText;
}

class OrderFileTest : public testing::Test
{
protected:
    bool read(const std::string &strText)
    {
        m_oOrders.clear();
        m_strError.clear();
        std::ofstream(m_strFile) << strText;
        return readOrders(m_strFile, m_oOrders, m_strError);
    }

    zoltest::CInstallation m_oInstallation;
    const std::string m_strFile = m_oInstallation.root() + "/orders.csv";
    std::vector<SQuote> m_oOrders;
    std::string m_strError;
};

} // namespace

TEST(BookTest, TradesAtTheBestPriceFirst)
{
    CBook oBook;
    std::vector<SQuote> oChanged;
    EXPECT_EQ(0, oBook.addOrder({"OAK", SELL, 102, 10}, oChanged));
    EXPECT_EQ(0, oBook.addOrder({"OAK", SELL, 100, 10}, oChanged));
    EXPECT_EQ(0, oBook.addOrder({"OAK", SELL, 105, 10}, oChanged));
    EXPECT_EQ(0, oBook.addOrder({"ELM", SELL, 1, 99}, oChanged)) << "another symbol takes no part";
    oChanged.clear();
    EXPECT_EQ(15, oBook.addOrder({"OAK", BUY, 102, 15}, oChanged));
    EXPECT_EQ("OAK sell 100 0\nOAK sell 102 5\n", textOf(oChanged));
    oChanged.clear();
    EXPECT_EQ(5, oBook.addOrder({"OAK", BUY, 104, 8}, oChanged)) << "the rest stays as a buyer";
    EXPECT_EQ("OAK sell 102 0\nOAK buy 104 3\n", textOf(oChanged));
    oChanged.clear();
    EXPECT_EQ(3, oBook.addOrder({"OAK", SELL, 104, 3}, oChanged)) << "equal prices meet";
    EXPECT_EQ("OAK buy 104 0\n", textOf(oChanged));
    EXPECT_EQ("ELM sell 1 99\nOAK sell 105 10\n", oBook.toText());
}

// A view that only hears of changes, and one that begins with the whole book, end with the same text.
TEST(BookTest, ChangesRebuildTheBook)
{
    CBook oBook;
    CBook oByChanges;
    std::uint32_t uiRandom = 7;
    for (int iOrder = 0; iOrder < 5000; ++iOrder)
    {
        uiRandom = uiRandom * 1664525 + 1013904223;
        const int iPrice = 90 + static_cast<int>(uiRandom >> 8 & 15);
        const int iQuantity = 1 + static_cast<int>(uiRandom >> 16 & 63);
        std::vector<SQuote> oChanged;
        oBook.addOrder({(uiRandom & 1U << 30) != 0 ? "OAK" : "ELM", (uiRandom & 1U << 31) != 0, iPrice, iQuantity},
                       oChanged);
        for (const SQuote &oLevel : oChanged)
        {
            oByChanges.setLevel(oLevel);
        }
    }
    CBook oBySnapshot;
    for (const SQuote &oLevel : oBook.levels())
    {
        oBySnapshot.setLevel(oLevel);
    }
    EXPECT_FALSE(oBook.toText().empty());
    EXPECT_EQ(oBook.toText(), oByChanges.toText());
    EXPECT_EQ(oBook.toText(), oBySnapshot.toText());
}

TEST_F(OrderFileTest, ReadsRowsWithAndWithoutAHeadLine)
{
    for (const char *pcText : {"symbol,side,price,quantity\nOAK,buy,12,3\nELM,sell,7,1\n", "OAK,buy,12,3\nELM,sell,7,1",
                               "OAK,buy,12,3\r\nELM,sell,7,1\r\n"})
    {
        ASSERT_TRUE(read(pcText)) << m_strError;
        EXPECT_EQ("OAK buy 12 3\nELM sell 7 1\n", textOf(m_oOrders));
    }
}

TEST_F(OrderFileTest, RefusesWhatIsNoOrderAndNamesTheLine)
{
    for (const char *pcLine : {"", "OAK", "OAK,buy,1", "OAK,buy,1,1,1", "OAK,hold,1,1", "OAK,Buy,1,1", ",buy,1,1",
                               "oak,buy,1,1", "LONGSYMBOL,buy,1,1", "OAK,buy,0,1", "OAK,buy,1,0", "OAK,buy,-1,1",
                               "OAK,buy,1,2147483648", "OAK,buy, 1,1", "OAK,buy,1,1x", "OAK,buy,,1", "O K,buy,1,1"})
    {
        EXPECT_FALSE(read("OAK,buy,1,1\n" + std::string(pcLine) + "\n")) << pcLine;
        EXPECT_NE(std::string::npos, m_strError.find(":2: ")) << m_strError;
    }
    EXPECT_FALSE(read("")) << "nothing to trade";
    EXPECT_FALSE(read("symbol,side,price,quantity\n"));
    EXPECT_FALSE(readOrders(m_oInstallation.root(), m_oOrders, m_strError)) << "a folder";
    EXPECT_FALSE(readOrders(m_strFile + ".none", m_oOrders, m_strError));
}

// All quantities could meet at one level, whose number then has to fit.
TEST_F(OrderFileTest, BoundsTheSumOfTheQuantities)
{
    const std::string strMost = "OAK,buy,1," + std::to_string(INT_MAX - 1) + "\nOAK,buy,1,1\n";
    EXPECT_TRUE(read(strMost)) << m_strError;
    EXPECT_FALSE(read(strMost + "OAK,sell,1,1\n"));
}

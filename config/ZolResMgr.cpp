#include "ZolResMgr.h"
#include "ZolUtil.h"
#include "config/ZolBinPath.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <limits>

// The format of a file: lines of "key = value", blanks and tabs around both cut off. The first "=" divides; a line
// without one or with an empty key is skipped, and so is one that begins with "#". The first value of a key stays.

namespace
{

// Never destroyed: threads of the library outlive main.
std::map<std::string, std::string> &resources()
{
    static auto *const poResources = new std::map<std::string, std::string>;
    return *poResources;
}

void addLine(std::string strLine)
{
    zol::trimString(strLine);
    const size_t uiDivider = strLine.find('=');
    if (strLine.empty() || strLine[0] == '#' || uiDivider == 0 || uiDivider == std::string::npos)
    {
        return;
    }
    std::string strKey = strLine.substr(0, uiDivider);
    std::string strValue = strLine.substr(uiDivider + 1);
    zol::trimString(strKey);
    zol::trimString(strValue);
    resources().emplace(std::move(strKey), std::move(strValue));
}

// The next line up to a NUL byte, at most 511 characters of it; what a longer line holds behind them is passed over.
std::string readLine(std::ifstream &oFile)
{
    char acLine[512];
    oFile.getline(acLine, sizeof acLine);
    if (oFile.fail() && !oFile.eof() && !oFile.bad())
    {
        oFile.clear();
        oFile.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return acLine;
}

// All bytes are digits; a number that is too large for an int is the largest one.
int toInt(const std::string &strDigits)
{
    return static_cast<int>(std::min<long long>(strtoll(strDigits.c_str(), nullptr, 10), INT_MAX));
}

} // namespace

namespace zol
{

int init()
{
    std::string strRoot;
    if (getTrimEnv("ZOLROOT", strRoot) != 0)
    {
        if (ZOLCPP::getBinPath(strRoot) != 0)
        {
            std::cerr << "zol::init failed to get the path of the process." << std::endl;
            return ZOL_ERR_FAILED;
        }
        strRoot += "/..";
    }
    const std::string strFile = strRoot + "/conf/" + "zol.cfg";
    if (!addResFile(strFile))
    {
        std::cerr << "zol::init failed to add " << strFile << " as a resource file." << std::endl;
        return ZOL_ERR_FAILED;
    }
    return ZOL_OK;
}

bool addResFile(const std::string &strFile)
{
    std::ifstream oFile(strFile);
    if (oFile.is_open())
    {
        oFile.peek(); // a folder opens, and is refused by the first read
    }
    if (!oFile.is_open() || oFile.bad())
    {
        std::cout << "Fail to open resource file: " << strFile << std::endl;
        return false;
    }
    while (oFile.good())
    {
        addLine(readLine(oFile));
    }
    return true;
}

void initResMgr()
{
    resources().clear();
}

const std::map<std::string, std::string> &getResMgr()
{
    return resources();
}

const std::string *getResByKey(const std::string &strKey)
{
    const auto oFound = resources().find(strKey);
    return oFound == resources().end() ? nullptr : &oFound->second;
}

std::string getResByKey(const std::string &strKey, const std::string &strDefault)
{
    const std::string *const pstrValue = getResByKey(strKey);
    return pstrValue == nullptr ? strDefault : *pstrValue;
}

int getResByKey(const std::string &strKey, int &iValue)
{
    const std::string *const pstrValue = getResByKey(strKey);
    if (pstrValue == nullptr || !isDigit(*pstrValue))
    {
        return ZOL_ERR_FAILED;
    }
    iValue = toInt(*pstrValue);
    return ZOL_OK;
}

int getResByKey(const std::string &strKey, int &iValue, int iMaximum, int iMinimum)
{
    int iRead = 0;
    const int iResult = getResByKey(strKey, iRead);
    if (iResult == ZOL_OK)
    {
        iValue = iRead < iMinimum ? iMinimum : std::min(iRead, iMaximum);
    }
    return iResult;
}

void saveResWithKey(const std::string &strKey, const std::string &strValue)
{
    resources()[strKey] = strValue;
}

} // namespace zol
